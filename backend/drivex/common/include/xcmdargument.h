#pragma once

#include <string>
#include <vector>

#include "vexadx_export.h"

// A list of arguments that can be edited, and the two forms of it that C interfaces take: a null-terminated vector and
// one joined line. Each form is built when it is first asked for after a change and belongs to the object. One thread
// at a time.
class VEXADX_API XCmdArgument {
 public:
  XCmdArgument();

  // Takes copies of the texts.
  XCmdArgument(int argc, const char* const* argv);

  // Splits at every single blank, without regard to quotes: two blanks in a row give an empty argument between them.
  explicit XCmdArgument(const std::string& commandLine);

  ~XCmdArgument();
  XCmdArgument(const XCmdArgument&) = delete;
  XCmdArgument& operator=(const XCmdArgument&) = delete;

  // The number of arguments, and the vector of them with a null entry at its end; null when there never was anything to
  // build it from. Valid until the first argc or argv after a change.
  int argc();
  char** argv();

  // The arguments joined, a blank before each; null when there are none. Valid until the first cmdline after a change.
  const char* cmdline();

  // The argument's text, valid until the list changes; null when there is none of this index.
  const char* argumentAt(int index);

  // Appends the text as one argument. The bool is not used.
  void pushArgument(const std::string& text, bool);

  // Does nothing when there is no argument of this index.
  void modifyArgument(int index, const std::string& text);

  // The steps of the operations above. They leave it to their caller to note which forms are out of date.
  void copy2list(int argc, const char* const* argv);
  void copy2c(const std::vector<std::string>& arguments);
  void copy2s(const std::vector<std::string>& arguments);
  void cleanc();  // frees the vector

 private:
  VEXADX_HIDDEN void noteChange();
  VEXADX_HIDDEN bool holds(int index) const;

  // Whether the list has changed since the form was built.
  bool m_argvChanged;
  bool m_cmdlineChanged;
  std::vector<std::string> m_arguments;
  int m_argc;       // entries of m_argv without the null at its end
  char** m_argv;    // owned, like each text in it
  char* m_cmdline;  // owned
};
