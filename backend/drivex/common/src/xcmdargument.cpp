#include "xcmdargument.h"

#include <cstring>
#include <memory>
#include <utility>

#include "dxutils.h"

namespace {

std::unique_ptr<char[]> copyOf(const std::string& text) {
  auto copy = std::make_unique<char[]>(text.size() + 1);
  std::memcpy(copy.get(), text.c_str(), text.size() + 1);
  return copy;
}

}  // namespace

XCmdArgument::XCmdArgument()
    : m_argvChanged(false), m_cmdlineChanged(false), m_argc(0), m_argv(nullptr), m_cmdline(nullptr) {}

XCmdArgument::XCmdArgument(int argc, const char* const* argv) : XCmdArgument() {
  copy2list(argc, argv);
  noteChange();
}

XCmdArgument::XCmdArgument(const std::string& commandLine) : XCmdArgument() {
  if (commandLine.empty()) return;
  m_arguments = GetListFromDelims(commandLine, " ");
  noteChange();
}

XCmdArgument::~XCmdArgument() {
  cleanc();
  delete[] m_cmdline;
}

int XCmdArgument::argc() {
  (void)argv();
  return m_argc;
}

char** XCmdArgument::argv() {
  if (m_argvChanged) {
    copy2c(m_arguments);
    m_argvChanged = false;
  }
  return m_argv;
}

const char* XCmdArgument::cmdline() {
  if (m_cmdlineChanged) {
    copy2s(m_arguments);
    m_cmdlineChanged = false;
  }
  return m_cmdline;
}

const char* XCmdArgument::argumentAt(int index) {
  return holds(index) ? m_arguments[static_cast<std::size_t>(index)].c_str() : nullptr;
}

void XCmdArgument::pushArgument(const std::string& text, bool) {
  m_arguments.push_back(text);
  noteChange();
}

void XCmdArgument::modifyArgument(int index, const std::string& text) {
  if (!holds(index)) return;
  m_arguments[static_cast<std::size_t>(index)] = text;
  noteChange();
}

void XCmdArgument::copy2list(int argc, const char* const* argv) {
  m_arguments.clear();
  for (int i = 0; i < argc && argv; ++i) m_arguments.emplace_back(argv[i] ? argv[i] : "");
}

// The old vector goes only when the new one is whole, so that running out of memory leaves the object as it was.
void XCmdArgument::copy2c(const std::vector<std::string>& arguments) {
  std::vector<std::unique_ptr<char[]>> texts;
  texts.reserve(arguments.size());
  for (const std::string& argument : arguments) texts.push_back(copyOf(argument));
  auto vector = std::make_unique<char*[]>(texts.size() + 1);
  cleanc();
  for (std::size_t i = 0; i < texts.size(); ++i) vector[i] = texts[i].release();
  m_argc = static_cast<int>(texts.size());
  m_argv = vector.release();
}

void XCmdArgument::copy2s(const std::vector<std::string>& arguments) {
  std::string line;
  for (const std::string& argument : arguments) line.append(1, ' ').append(argument);
  std::unique_ptr<char[]> copy = line.empty() ? nullptr : copyOf(line);
  delete[] std::exchange(m_cmdline, copy.release());
}

void XCmdArgument::cleanc() {
  if (!m_argv) return;
  for (char** text = m_argv; *text; ++text) delete[] * text;
  delete[] std::exchange(m_argv, nullptr);
}

void XCmdArgument::noteChange() { m_argvChanged = m_cmdlineChanged = true; }

bool XCmdArgument::holds(int index) const { return index >= 0 && static_cast<std::size_t>(index) < m_arguments.size(); }
