// A host that is not in English: its numbers and its locale stay its own, and everybody else's numbers have a point.

#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "dxglobals.h"
#include "dxtracer.h"
#include "inpstatisticsx.h"
#include "temphome.h"
#include "vexadx.h"
#include "vexadx_hoststate.h"
#include "vexadxconfigreader.h"
#include "vexajvm.h"

namespace {

using vexadx::HostStateGuarding;

std::string gOutput;
int takeOutput(const char* text, int length) {
  gOutput.append(text, static_cast<std::size_t>(length));
  return 0;
}

struct HostLocale {
  const char* name;
  const char* number;   // 1.5
  const char* library;  // of PIPPI, whose section is [pippi]
};
void PrintTo(const HostLocale& locale, std::ostream* out) { *out << locale.name; }

constexpr HostLocale kLocales[] = {{"de_DE.UTF-8", "1,5", "ini"},
                                   {"tr_TR.UTF-8", "1,5", ""},
                                   {"fa_IR.UTF-8", "1.5", "ini"},
                                   {"ja_JP.UTF-8", "1.5", "ini"}};

class Locale : public testing::TestWithParam<HostLocale> {
 protected:
  Locale() {
#ifdef __linux__
    ::setenv("LOCPATH", VEXADX_LOCALES, 1);
#endif
    ::setenv("LC_ALL", GetParam().name, 1);
    SetVEXAHOME(m_home.Path().c_str());
    m_tracer.open(m_home.Path("trace"));
    SetDxTracer(&m_tracer);
  }
  ~Locale() override { SetDxTracer(nullptr); }

  static void ExpectHosts(std::string_view when) {
    EXPECT_STREQ(GetParam().name, std::setlocale(LC_ALL, nullptr)) << when;
    char number[8];
    (void)std::snprintf(number, sizeof number, "%.1f", 1.5);
    EXPECT_STREQ(GetParam().number, number) << when;
    EXPECT_EQ(1.5, std::strtod(number, nullptr)) << when;
  }

  TempHome m_home;
  DxTracer m_tracer;
};

std::string languageOf(const testing::TestParamInfo<HostLocale>& row) {
  return std::string(row.param.name).substr(0, std::strlen("de_DE"));
}

INSTANTIATE_TEST_SUITE_P(Of, Locale, testing::ValuesIn(kLocales), languageOf);

int run(InpStatisticsX& engine, std::string block) {
  gOutput.clear();
  return engine.execute_x(block.data());
}

const struct {
  const char* xName;
  const char* numbers;  // writes kNumbers
  const char* changes;
} kLanguages[] = {
    {"PYTHON", "import json\nprint(float('1.5'), '%.2f' % 3.14159, json.loads('2.5e3'), 1/8, end='')",
     "import locale, os\nos.chdir('/')\nos.umask(0o123)\nlocale.setlocale(locale.LC_ALL, 'C')"},
#ifdef VEXADX_WITH_R
    {"R", "cat(as.numeric('1.5'), sprintf('%.2f', 3.14159), '2500.0', 1/8)",
     "invisible(setwd('/')); invisible(Sys.umask('123')); invisible(Sys.setlocale('LC_ALL', 'C'))"},
#endif
};
constexpr std::string_view kNumbers = "1.5 3.14 2500.0 0.125";

}  // namespace

TEST_P(Locale, OfTheHostIsItsOwn) {
  ASSERT_STREQ(GetParam().name, std::setlocale(LC_ALL, ""));
  m_home.Configure("[pippi]\nLIB_NAME=ini\n[OTHER]\nLIB_NAME=other\n");
  EXPECT_EQ(GetParam().library, VexaDXConfigReader::GetInstance("PIPPI")->GetXLibName());

  const std::filesystem::path directory = std::filesystem::current_path();
  for (const auto& language : kLanguages) {
    XConfigOptions options(language.xName);
    InpStatisticsX engine(&options, true);
    ASSERT_TRUE(VexaJVM::GetInstance()->IsStarted());
    ExpectHosts("the start of the Java machine");
    engine.set_post_vexa_output(&takeOutput);
    ASSERT_EQ(0, engine.init_embedded_x(0, nullptr)) << gOutput;
    ExpectHosts("the start of a language");
    for (const auto guarding : {HostStateGuarding::kRestore, HostStateGuarding::kArithmetic}) {
      vexadx::GuardHostState(engine, guarding);
      EXPECT_EQ(0, run(engine, language.numbers));
      EXPECT_EQ(kNumbers, gOutput) << language.xName;
      EXPECT_EQ(1, run(engine, "no such thing"));
      ExpectHosts("a block");
      EXPECT_EQ(std::vector<std::string>(), vexadx::HostStateChanges(engine));
    }
    vexadx::GuardHostState(engine, HostStateGuarding::kRestore);
    EXPECT_EQ(0, run(engine, language.changes)) << gOutput;
    ExpectHosts("a block that changed it");
    EXPECT_EQ(directory, std::filesystem::current_path());
    EXPECT_EQ(0, run(engine, language.numbers)) << gOutput;
    EXPECT_EQ(kNumbers, gOutput) << language.xName;
    EXPECT_EQ(0, engine.stop_embedded_x());
    ExpectHosts("the stop");
  }
  DxTraceError("a number", 1234567);
  EXPECT_EQ("a number error code : 1234567.", TraceTexts(m_home.Path("trace")).back());
}

// Of those, the locales with a comma.
class UsersLocale : public Locale {};
INSTANTIATE_TEST_SUITE_P(With, UsersLocale, testing::Values(kLocales[0], kLocales[1]), languageOf);

TEST_P(UsersLocale, ChangesNoNumberOfVexadx) {
  const std::regex inJson("\"seconds\":[0-9]+(\\.[0-9]+)?(e-[0-9]+)?[,}]");
  const std::regex inText("code 0 \\(success\\), [0-9]+\\.[0-9]{2,3} m?s");
  for (const auto& language : kLanguages) {
    const Outcome json = RunVexadx({"run", language.xName, "--in-process", "--json", "-e", language.numbers});
    EXPECT_EQ(0, json.status) << json.err;
    for (const std::string& line : Lines(json.out)) {
      EXPECT_TRUE(line.find("seconds") == std::string::npos || std::regex_search(line, inJson)) << line;
    }
    for (const std::string place : {"--in-process", "--out-of-process"}) {
      const Outcome text = RunVexadx({"run", language.xName, place, "--verbose", "-e", language.numbers});
      EXPECT_EQ(kNumbers, text.out) << language.xName;
      EXPECT_TRUE(std::regex_search(text.err, inText)) << text.err;
    }
  }
}
