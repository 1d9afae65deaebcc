// Any text as variables and as a text with references to them: expansion ends, stays within its bounds, and gives what
// a plain one gives that remembers for each character the references which produced it.

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "input.h"
#include "invariant.h"
#include "xconfigoptions.h"

namespace {

constexpr std::size_t kLongest = 1 << 20;

struct Producer {
  std::string name;
  std::shared_ptr<const Producer> outer;

  static bool Has(const Producer* producer, const std::string& name) {
    for (; producer; producer = producer->outer.get()) {
      if (producer->name == name) return true;
    }
    return false;
  }
};

struct Character {
  char character;
  std::shared_ptr<const Producer> producer;
};

using Variables = std::map<std::string, std::string>;

// False when it takes too long to compare.
bool expand(const Variables& variables, const std::string& input, std::string& output) {
  constexpr int kMostSteps = 500;
  constexpr std::size_t kMostCharacters = 1 << 14;
  std::vector<Character> text;
  for (const char c : input) text.push_back({c, nullptr});
  for (int steps = 0;; ++steps) {
    if (steps > kMostSteps || text.size() > kMostCharacters) return false;
    output.clear();
    for (const Character& c : text) output += c.character;
    const std::size_t dollar = output.find('$');
    if (dollar == std::string::npos || dollar + 1 == output.size()) return true;
    const bool braced = output[dollar + 1] == '{';
    const std::size_t begin = dollar + (braced ? 2 : 1);
    const std::size_t end = output.find(braced ? '}' : '/', begin);
    if (end == std::string::npos) return true;
    const std::string name = output.substr(begin, end - begin);
    const auto producer = text[dollar].producer;
    const auto variable = variables.find(name);
    if (variable == variables.end() || Producer::Has(producer.get(), name)) return true;
    const auto product = std::make_shared<Producer>(Producer{name, producer});
    std::vector<Character> value;
    for (const char c : variable->second) value.push_back({c, product});
    const auto at = text.begin() + static_cast<std::ptrdiff_t>(dollar);
    text.insert(text.erase(at, at + static_cast<std::ptrdiff_t>(end + (braced ? 1 : 0) - dollar)), value.begin(),
                value.end());
  }
}

void check(XConfigOptions& options, const std::string& input) {
  std::string output;
  require(!options.ExpandEnvVars(input, output));
  require(output.size() <= std::max(input.size(), kLongest));
  std::string again = input;
  require(!options.ExpandEnvVars(again, again));
  require(again == output);
  std::string wanted;
  if (expand(options.GetXEnvVars(), input, wanted)) require(output == wanted);
}

}  // namespace

// Each line but the last is a variable. A line with a second "=" becomes the variable's value many times over.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  XConfigOptions options("X");
  Input input(data, size);
  for (int variables = 0; input.Rest().find('\n') != std::string_view::npos && variables < 30; ++variables) {
    Input line(reinterpret_cast<const std::uint8_t*>(input.Rest().data()), input.Rest().find('\n'));
    const std::string name(line.Until('='));
    std::string value(line.Rest());
    if (value.starts_with('=')) {
      value.erase(0, 1);
      for (int i = 0; i < 6; ++i) value += value;
    }
    (void)input.Until('\n');
    check(options, value);
    options.PutOption(name, value);
    std::string kept;
    require(options.FindUserEnv(name, kept) != XConfigOptions::IsDefinedKey(name));
    require(options.GetOption(name) == value);
  }
  check(options, std::string(input.Rest()));
  return 0;
}
