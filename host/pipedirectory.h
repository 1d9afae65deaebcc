#pragma once

#include <string>

// A directory for the pipes of this process alone, removed with all that is in it at the end. One that a process left
// behind when it was killed is removed by the next.
class PipeDirectory {
 public:
  PipeDirectory();  // throws Problem when there can be none
  ~PipeDirectory() { Remove(); }
  PipeDirectory(const PipeDirectory&) = delete;
  PipeDirectory& operator=(const PipeDirectory&) = delete;

  // For a process that ends in another way. Any thread.
  void Remove() const;

  // Ends in a separator.
  const std::string& Path() const { return m_path; }

 private:
  std::string m_path;
};
