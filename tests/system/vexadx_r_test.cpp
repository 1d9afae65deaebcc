// vexadx with R, beside R itself.

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "temphome.h"
#include "vexadx.h"

namespace {

const Strings kPlaces{"--in-process", "--out-of-process"};

class VexadxR : public testing::Test {
 protected:
  VexadxR() { ::setenv("LC_ALL", "C.UTF-8", 1); }

  static Strings Run(const std::string& place, const Strings& blocks) {
    Strings arguments{"run", "R", place};
    for (const std::string& block : blocks) arguments.insert(arguments.end(), {"-e", block});
    return arguments;
  }

  TempHome m_home;
};

// What the console makes of a block: its input ends after an error.
Outcome Console(const std::string& block) {
  Outcome outcome = RunProgram({VEXADX_R_PROGRAM, "--silent", "--no-save", "--no-echo"}, block + "\n");
  const std::string halted = "Execution halted\n";
  if (outcome.err.ends_with(halted)) outcome.err.erase(outcome.err.size() - halted.size());
  return outcome;
}

std::string WithoutOwnLines(const std::string& text) {
  std::string rest;
  for (const std::string& line : Lines(text)) {
    if (!line.starts_with("vexadx: ")) rest += line + '\n';
  }
  return rest;
}

const Strings kGoodBlocks{
    "x <- 1",
    "x + 1; x; invisible(x)\n.Last.value",
    "# nothing",
    "",
    "f <- function(a) { # kept nowhere\n  a }\nf",
    "g <- function() { warning('w1'); warning('w2'); 5 }; g(); for (i in 1:60) warning(i)",
    "try(log(-1:2)); try(stop('x'))",
    "tryCatch(stop('y'), error = function(e) cat('caught\\n'), finally = cat('fin\\n'))",
    "suppressWarnings(as.integer('a')); as.integer('a')",
    "options(warn = 1); g(); options(warn = 0)",
    "setClass('P', representation(x = 'numeric'))",
    "setMethod('show', 'P', function(object) cat('<P>\\n')); new('P', x = 1)",
    "h <- function() sys.call(); h(); sys.calls(); sys.nframe(); environment()",
    "on.exit(cat('bye\\n')); 3",
    "message('to stderr'); cat('out\\n'); write('err', stderr())",
    "print('\xC3\xA4\xE2\x82\xAC'); cat('\xC3\xA4\\n'); nchar('\xC3\xA4'); '\\u00e9'; '\\U1F600'",
    "l <- 'f\\xe4'; Encoding(l) <- 'latin1'; l; nchar(l); l == 'f\xC3\xA4'; Encoding(l) <- 'bytes'; l",
    "options(digits = 3); pi; 1:3 / 7; options(digits = 7); pi",
    "Sys.getlocale('LC_NUMERIC'); format(1.5); l10n_info()[['UTF-8']]",
    "invisible(addTaskCallback(function(...) { cat('task\\n'); FALSE })); 1; 2",
    "readline('name? ')",
    "1\r\nf <- function() {\r\n 2 }\r\nf(); 'a\r\nb'\r",
    "library(parallel); p <- parallel:::mcfork(); if (inherits(p, 'masterProcess')) q('no')",
    "invisible(parallel:::readChild(p)); cat('once\\n'); detach('package:parallel')",
    "interactive(); getOption('echo'); R.home('share')",
    "set.seed(1); rnorm(3); data.frame(a = 1:3, b = letters[1:3]); sort(c('B', 'a', 'C'))",
    "library(stats4); search()",
    "system('echo from a shell')",
    "r\"(raw \\d)\"; `my var` <- 2; `my var`; 5 -> y; y",
    "invisible(Sys.setlocale('LC_ALL', 'C'))",
    "print('\xC3\xA4'); Sys.getlocale('LC_CTYPE')",
};

const Strings kBadBlocks{
    "cat('before\\n'); f <- function(n) stop('n is ', n); f(3); cat('never\\n')",
    "warning('first'); stop('a\nb')",
    "f <- function() { warning('w'); stop('boom', call. = FALSE) }\nf()",
    "options(warn = 2); as.integer('a')",
    "print.foo <- function(x, ...) stop('not printed'); structure(1, class = 'foo'); 2",
    "library(notthere)",
    "x <- 2; x\ny <- )\n3",
    "x <- 1\nx; y <- (\n  a b",
    "x <- 3; x\n# c\n\n  # d\n   x y",
    "x <- 4; x; y <- (",
    "x <- 4; x; y <- 1 +\n",
    "'\xC3\xA4';\t'\xC3\xA4';  2 x",
    "1\r2",
    "x <- 5; x;  \"a\\d\"",
    "x <- 6; x\nfunction(a, a) 1",
    "x <- 7; x; 'unterminated",
    "if (TRUE) {\n x <- 1",
    "print(8) }",
    "else 3",
    "1 -> 2",
    "a %foo% b",
    "print('\xE4')\n'b'",
    "repeat { x <- 9; break }; x; stop(errorCondition('m', class = 'mine'))",
};

}  // namespace

TEST_F(VexadxR, PrintsWhatTheConsolePrints) {
  std::string session;
  for (const std::string& block : kGoodBlocks) session += block + "\n";
  Outcome expected = Console(session);
  ASSERT_EQ(0, expected.status) << expected.err;
  for (const std::string& block : kBadBlocks) {
    const Outcome outcome = Console(block);
    EXPECT_EQ(1, outcome.status) << block;
    expected.out += outcome.out;
    expected.err += outcome.err;
  }
  Strings blocks = kGoodBlocks;
  blocks.emplace_back("invisible(Sys.setlocale('LC_ALL', 'C.UTF-8'))");
  for (const std::string& block : kBadBlocks) {
    blocks.push_back(block);
    blocks.emplace_back("options(warn = 0)");
  }
  for (const std::string& place : kPlaces) {
    const Outcome outcome = RunVexadx(Run(place, blocks));
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ(expected.out, outcome.out) << place;
    EXPECT_EQ(expected.err, WithoutOwnLines(outcome.err)) << place;
  }
}

TEST_F(VexadxR, RunsARealAnalysis) {
  const std::string example = VEXADX_EXAMPLES "/stopping.R";
  const TempDir directory;
  std::filesystem::current_path(directory.Path());
  const Outcome expected = Console(ReadFile(example));
  for (const std::string& place : kPlaces) {
    std::filesystem::remove("stopping.png");
    const Outcome outcome = RunVexadx({"run", "R", place, example});
    EXPECT_EQ(0, outcome.status) << outcome.err;
    EXPECT_EQ(expected.out, outcome.out);
    EXPECT_EQ("", outcome.err);
    const std::string picture = ReadFile("stopping.png");
    EXPECT_EQ("\x89PNG\r\n", picture.substr(0, 6));
    EXPECT_LT(2'000U, picture.size());
  }
  std::filesystem::current_path("/");
}

TEST_F(VexadxR, CtrlCInterruptsTheBlock) {
  for (const std::string& place : kPlaces) {
    for (const std::string loop : {"while (TRUE) Sys.time()", "Sys.sleep(1000)"}) {
      ChildProcess child(CommandOf(Run(place, {"kept <- 1; cat('ready')\n" + loop, "kept"})));
      child.AwaitOutput("ready");
      EXPECT_EQ(130, EndBy(SIGINT, child)) << place << '\n' << child.Err();
      EXPECT_EQ("ready[1] 1\n", child.Out()) << place << '\n' << child.Err();
    }
  }
}

// Other signals do what they do without R.
TEST_F(VexadxR, TellsWhereItCrashed) {
  const auto dying = [](const std::string& signal) {
    return RunVexadx(Run("--out-of-process", {"f <- function() tools::pskill(Sys.getpid(), " + signal + ")", "f()"}));
  };
  const Outcome crashed = dying("11");
  EXPECT_EQ(4, crashed.status);
  ExpectWords(crashed.err, {"vexadx:    *** caught segfault ***\n", ": f()\n", "signal 11 (", "while it executed"});
  for (const std::string signal : {"tools::SIGUSR1", "tools::SIGUSR2", "13"}) {
    const Outcome ended = dying(signal);
    EXPECT_EQ(4, ended.status);
    EXPECT_EQ(std::string::npos, ended.err.find("caught")) << ended.err;
  }
}

TEST_F(VexadxR, QuitIsTheBlocksCode) {
  for (const std::string& place : kPlaces) {
    const Outcome outcome = RunVexadx(Run(place, {"kept <- 1; q(status = 3); kept <- 2", "kept"}));
    EXPECT_EQ(1, outcome.status);
    ExpectWords(outcome.err, {"block -e 1: code 3"});
    EXPECT_EQ("[1] 1\n", outcome.out);
  }
}

// The home comes to an engine in quotes where its section leaves the variable empty.
TEST_F(VexadxR, TakesHomeAndPackagesFromThePreferences) {
  const TempDir packages;
  packages.Write("source/greeting/DESCRIPTION", "Package: greeting\nVersion: 1.0\nTitle: Greets\nLicense: GPL-2\n");
  packages.Write("source/greeting/NAMESPACE", "export(greet)\n");
  packages.Write("source/greeting/R/greet.R", "greet <- function() 'hello'\n");
  std::filesystem::create_directory(packages.Path("installed"));
  const Outcome installed =
      RunProgram({VEXADX_R_PROGRAM, "CMD", "INSTALL", "--library=" + packages.Path("installed").string(),
                  packages.Path("source/greeting").string()});
  ASSERT_EQ(0, installed.status) << installed.err;

  m_home.Prefer("R.libName=vexar\nR.home=" VEXADX_R_HOME "/\nR.packagePath=" + packages.Path("installed").string());
  for (const std::string section : {"", "R_HOME=\n"}) {
    m_home.Configure("[SUPPORTED_LANG]\nX=R\n[R]\n" + section);
    for (const std::string& place : kPlaces) {
      const Outcome outcome = RunVexadx(Run(place, {"greeting::greet(); normalizePath(R.home())"}));
      EXPECT_EQ(0, outcome.status) << outcome.err;
      EXPECT_EQ("[1] \"hello\"\n[1] \"" VEXADX_R_HOME "\"\n", outcome.out);
    }
  }
  m_home.Configure("[SUPPORTED_LANG]\nX=R\n");
  m_home.Prefer("R.libName=vexar\nR.home=/no/such home");
  const Outcome outcome = RunVexadx(Run("--in-process", {"1"}));
  EXPECT_EQ(3, outcome.status);
  ExpectWords(outcome.err, {"/no/such home (R_HOME) does not hold the library of R", "R.home in"});
}

// A file of its name hides R's library from the loader.
TEST_F(VexadxR, AMissingRIsExplained) {
  const TempDir hidden;
  hidden.Write("libR.so", "");
  ::setenv("LD_LIBRARY_PATH", hidden.Path().c_str(), 1);
  const struct {
    Strings arguments;
    Strings words;
  } cases[] = {
      {{"doctor", "--engine", "R"}, {"libR.so: file too short", "install R", "apt-get install r-base-core"}},
      {Run("--in-process", {"1"}), {"libR.so: file too short", "install R"}},
      {Run("--out-of-process", {"1"}), {"libR.so: file too short", "code 99114", "vexadx doctor --engine R"}},
  };
  for (const auto& c : cases) {
    const Outcome outcome = RunVexadx(c.arguments);
    EXPECT_EQ(3, outcome.status);
    ExpectWords(outcome.out + outcome.err, c.words);
  }
  ::unsetenv("LD_LIBRARY_PATH");
  m_home.Remove("lib/libvexar.dylib");
  const Outcome outcome = RunVexadx({"doctor", "--engine", "R"});
  EXPECT_EQ(3, outcome.status);
  ExpectWords(outcome.out + outcome.err, {"libvexar.dylib does not exist", "install R"});
}
