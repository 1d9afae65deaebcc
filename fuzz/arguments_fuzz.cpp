// Any changes of an argument list in any order, and any text as a command line: its two forms are those of a plain list
// of texts, whichever is asked for first.

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "input.h"
#include "invariant.h"
#include "xcmdargument.h"

namespace {

using Texts = std::vector<std::string>;

Texts split(std::string_view line) {
  Texts texts;
  while (!line.empty()) {
    const std::size_t length = std::min(line.find(' '), line.size());
    texts.emplace_back(line.substr(0, length));
    line.remove_prefix(std::min(length + 1, line.size()));
  }
  return texts;
}

// A text that C has of it.
std::string_view cText(const std::string& text) { return text.c_str(); }

void checkVector(XCmdArgument& arguments, const Texts& wanted, bool countFirst) {
  const int count = countFirst ? arguments.argc() : -1;
  char** const vector = arguments.argv();
  require(vector == arguments.argv());
  require(arguments.argc() == static_cast<int>(wanted.size()) && (!countFirst || count == arguments.argc()));
  if (!vector) return require(wanted.empty());
  for (std::size_t i = 0; i < wanted.size(); ++i) require(vector[i] && vector[i] == cText(wanted[i]));
  require(vector[wanted.size()] == nullptr);
}

void checkLine(XCmdArgument& arguments, const Texts& wanted) {
  std::string joined;
  for (const std::string& text : wanted) joined += ' ' + text;
  const char* const line = arguments.cmdline();
  require((line == nullptr) == wanted.empty());
  require(!line || line == cText(joined));
  require(line == arguments.cmdline());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Texts wanted;
  std::unique_ptr<XCmdArgument> arguments;
  if (input.Below(2) == 0) {
    const std::string line(input.Until('\n'));
    wanted = split(line);
    arguments = std::make_unique<XCmdArgument>(line);
  } else {
    const std::size_t count = input.Below(8);
    while (wanted.size() < count) wanted.emplace_back(cText(std::string(input.Until('\n'))));
    std::vector<const char*> pointers;
    for (const std::string& text : wanted) pointers.push_back(text.c_str());
    if (count > 0 && wanted.back().empty()) pointers.back() = nullptr;
    pointers.shrink_to_fit();  // no null at its end
    arguments = std::make_unique<XCmdArgument>(static_cast<int>(count), pointers.data());
  }
  while (!input.IsAtEnd()) {
    switch (input.Below(6)) {
      case 0:
        checkVector(*arguments, wanted, true);
        break;
      case 1:
        checkVector(*arguments, wanted, false);
        break;
      case 2:
        checkLine(*arguments, wanted);
        break;
      case 3:
        wanted.emplace_back(input.Until('\n'));
        arguments->pushArgument(wanted.back(), wanted.size() % 2 == 0);
        break;
      case 4: {
        const int index = input.Get<signed char>();
        const std::string text(input.Until('\n'));
        arguments->modifyArgument(index, text);
        if (index >= 0 && static_cast<std::size_t>(index) < wanted.size())
          wanted[static_cast<std::size_t>(index)] = text;
        break;
      }
      default: {
        const int index = input.Get<int>();
        const char* const text = arguments->argumentAt(index);
        const bool isThere = index >= 0 && static_cast<std::size_t>(index) < wanted.size();
        require(isThere ? text && text == cText(wanted[static_cast<std::size_t>(index)]) : !text);
      }
    }
  }
  checkLine(*arguments, wanted);
  checkVector(*arguments, wanted, true);
  return 0;
}
