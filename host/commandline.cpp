#include "commandline.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>

#include "dxutils.h"
#include "problem.h"

namespace {

constexpr double kLongestLimit = 1e6;
constexpr const char* kHelpAdvice = "\"vexadx --help\" shows the usage, \"vexadx COMMAND --help\" that of a command";

// The files and texts of `vexadx run`. The parser collects each kind for itself; its parse order tells how they were
// mixed.
struct RunSources {
  CLI::Option* fileOption = nullptr;
  CLI::Option* textOption = nullptr;
  std::vector<std::string> files;
  std::vector<std::string> texts;

  void Declare(CLI::App& run) {
    fileOption = run.add_option("FILE", files, "Files to run, one block each; - is standard input");
    // Without extra arguments each -e takes one text, and one in square brackets is not split as a list.
    textOption = run.add_option("-e", texts, "Text to run, one block");
    textOption->allow_extra_args(false)->type_name("TEXT");
  }

  std::vector<BlockSource> InOrder(const CLI::App& run) const {
    std::vector<BlockSource> sources;
    auto file = files.begin();
    auto text = texts.begin();
    for (const CLI::Option* option : run.parse_order()) {
      if (option == textOption) {
        sources.push_back({BlockSource::Kind::kText, *text++});
      } else if (option == fileOption) {
        const auto kind = *file == "-" ? BlockSource::Kind::kStandardInput : BlockSource::Kind::kFile;
        sources.push_back({kind, *file++});
      }
    }
    return sources;
  }
};

// The arguments after the program's name, last first as the parser wants them. It would split a file name in square
// brackets as a list.
std::vector<std::string> Arguments(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    std::string& argument = arguments[i];
    if (argument.starts_with('[') && argument.ends_with(']') && arguments[i - 1] != "-e") argument.insert(0, "./");
  }
  std::reverse(arguments.begin(), arguments.end());
  return arguments;
}

void CheckSources(const std::vector<BlockSource>& sources) {
  if (sources.empty()) {
    throw Problem(kWrongUsage, "there is nothing to run", "name a file, - for standard input, or a text with -e");
  }
  const auto isInput = [](const BlockSource& s) { return s.kind == BlockSource::Kind::kStandardInput; };
  if (std::count_if(sources.begin(), sources.end(), isInput) > 1) {
    throw Problem(kWrongUsage, "standard input (-) is named more than once", "name it once; it can be read only once");
  }
}

// Answers the group that these options make up.
CLI::App* AddJavaCommand(CLI::App& run, JavaCommand& command) {
  CLI::App* group = run.add_option_group("Java extension", std::string("What a block runs in ") + kJavaExtension);
  group->add_option("--command", command.name, "The command, named as its class")->type_name("NAME");
  group->add_option("--extension-path", command.extensionPath, "Directories of NAME.jar, separated by \":\"")
      ->type_name("PATH");
  group->add_flag_callback(
      "--no-package", [&command] { command.isPackage = false; }, "The extension path is a class path instead");
  return group;
}

void CheckEngineOptions(const CommandLine& commandLine, bool hasJavaOptions) {
  if (commandLine.engine != kJavaExtension) {
    if (!hasJavaOptions) return;
    throw Problem(kWrongUsage, "--command, --extension-path and --no-package are for " + std::string(kJavaExtension),
                  "leave them out, or name that engine instead of " + commandLine.engine);
  }
  if (commandLine.javaCommand.name.empty()) {
    throw Problem(kWrongUsage, std::string(kJavaExtension) + " does not know which command to run",
                  "name the command's class with --command NAME");
  }
  if (commandLine.inProcess) {
    throw Problem(kWrongUsage, std::string(kJavaExtension) + " always runs in a process of its own",
                  "leave out --in-process");
  }
}

void AddLimit(CLI::App& run, const std::string& name, double& seconds, const std::string& what) {
  run.add_option_function<double>(
         name,
         [name, &seconds](double value) {
           if (!(value > 0 && value <= kLongestLimit)) {
             throw Problem(kWrongUsage, name + " is no number of seconds",
                           "name one above 0, decimals allowed, and no more than 1000000");
           }
           seconds = value;
         },
         what)
      ->type_name("SECONDS");
}

void AddLimits(CLI::App& run, TimeLimits& limits) {
  AddLimit(run, "--timeout", limits.block, "Interrupt a block that takes longer, and end the run");
  AddLimit(run, "--start-timeout", limits.start, "Give an engine up that takes longer to start");
  AddLimit(run, "--stop-timeout", limits.stop, "End an engine that takes longer to stop");
}

void AddTrace(CLI::App& command, CommandLine& result) {
  command.add_option("--trace", result.trace, "Trace file, instead of the configured one")->type_name("FILE");
}

void AddJson(CLI::App& command, CommandLine& result) {
  command.add_flag("--json", result.json, "Write one JSON object a line to standard output");
}

// What is wrong with it; empty: nothing. Both become part of a configuration file, the first of file names as well.
std::string IsEngineName(const std::string& text) {
  const auto isWord = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; };
  return !text.empty() && std::ranges::all_of(text, isWord) ? "" : "an engine's name has letters, digits and _ only";
}

std::string IsSetting(const std::string& text) {
  const bool isLine = text.find('\n') == std::string::npos;
  return isLine && text.find('=') != std::string::npos && text[0] != '=' ? "" : "it is not KEY=VALUE: " + text;
}

CLI::App* AddCertify(CLI::App& app, CommandLine& result) {
  CLI::App* certify = app.add_subcommand("certify", "Examine which rules an X process program or a plug-in keeps");
  Certificate& certificate = result.certificate;
  CLI::Option* const file = certify->add_option("FILE", certificate.file, "The program or the plug-in library");
  const auto kind = [&](const char* name, Certificate::Kind which, const char* what) {
    return certify->add_flag_callback(
        name, [&certificate, which] { certificate.kind = which; }, what);
  };
  CLI::Option* const program = kind("--program", Certificate::Kind::kProgram, "FILE is a program");
  kind("--plug-in", Certificate::Kind::kPlugin, "FILE is a plug-in library")->excludes(program);
  certify->add_option("--engine", certificate.engine, "The X that it plays")
      ->type_name("X")
      ->check(IsEngineName)
      ->capture_default_str();
  certify->add_option("--library", certificate.library, "The plug-in library that the program loads")
      ->type_name("FILE|NAME");
  certify->add_option("--block", certificate.block, "A block that answers 0; empty when left out")->type_name("TEXT");
  certify->add_option("--endless-block", certificate.endlessBlock, "A block that ends only when it is interrupted")
      ->type_name("TEXT");
  certify->add_option("--set", certificate.section, "An option for its section of the configuration; may be repeated")
      ->allow_extra_args(false)
      ->type_name("KEY=VALUE")
      ->check(IsSetting);
  certify->add_option("--rule", certificate.rules, "Examine this rule, and those that it needs; may be repeated")
      ->allow_extra_args(false)
      ->type_name("NAME");
  certify->add_option("--timeout", certificate.seconds, "The time for each rule")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 86400.0))
      ->capture_default_str();
  certify->add_flag("--list", certificate.listsRules, "List the rules")->excludes(file);
  AddJson(*certify, result);
  return certify;
}

}  // namespace

std::optional<CommandLine> ParseCommandLine(int argc, char** argv) {
  CommandLine result;
  CLI::App app("Runs blocks of a language through its engine.", "vexadx");
  app.set_version_flag("--version", "vexadx " VEXADX_VERSION, "Print the version and exit");
  app.require_subcommand(1);

  CLI::App* run = app.add_subcommand("run", "Run files and texts, one block each, in the order given");
  run->add_option("ENGINE", result.engine, "The engine's name, for instance PYTHON")->required();
  RunSources sources;
  sources.Declare(*run);
  CLI::Option* const inside = run->add_flag("--in-process", result.inProcess, "Run the engine inside this process");
  run->add_flag("--out-of-process", result.outOfProcess, "Run the engine as a process of its own")->excludes(inside);
  run->add_flag("--threaded", result.threaded, "Run each block on a thread of its own");
  AddLimits(*run, result.limits);
  AddTrace(*run, result);
  AddJson(*run, result);
  run->add_flag("--verbose", result.verbose, "Report successful blocks, too");
  const CLI::App* javaOptions = AddJavaCommand(*run, result.javaCommand);

  CLI::App* engines = app.add_subcommand("engines", "List the configured engines");
  AddJson(*engines, result);

  CLI::App* doctor = app.add_subcommand("doctor", "Check whether engines would run, and say what to do if not");
  doctor->add_option("--engine", result.engine, "Check this engine only")->type_name("X");
  AddTrace(*doctor, result);
  AddJson(*doctor, result);

  const CLI::App* certify = AddCertify(app, result);

  try {
    app.parse(Arguments(argc, argv));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) throw Problem(kWrongUsage, error.what(), kHelpAdvice);
    (void)app.exit(error);  // prints the help or the version
    return std::nullopt;
  }

  result.engine = UpperString(result.engine);
  if (engines->parsed()) result.command = CommandLine::Command::kEngines;
  if (doctor->parsed()) result.command = CommandLine::Command::kDoctor;
  if (certify->parsed()) {
    result.command = CommandLine::Command::kCertify;
    const Certificate& certificate = result.certificate;
    if (certificate.file.empty() && !certificate.listsRules) {
      throw Problem(kWrongUsage, "FILE is required", kHelpAdvice);
    }
  }
  if (run->parsed()) {
    result.sources = sources.InOrder(*run);
    CheckEngineOptions(result, javaOptions->count_all() > 0);
    CheckSources(result.sources);
  }
  return result;
}
