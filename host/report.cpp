#include "report.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

#include "dxutils.h"
#include "vexadx_codes.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kLinesShown = 12;
constexpr std::size_t kLineShown = 200;

std::string Line(const Json& object) { return object.dump(-1, ' ', false, Json::error_handler_t::replace); }

std::string TimeText(double seconds) {
  char text[32];
  (void)(seconds < 1 ? std::snprintf(text, sizeof text, "%.2f ms", seconds * 1000)
                     : std::snprintf(text, sizeof text, "%.3f s", seconds));
  return text;
}

// Every line marked as ours, the whole written at once.
void Say(const std::string& text) {
  std::string marked;
  for (const std::string& line : GetListFromDelims(text, "\n")) marked += "vexadx: " + line + '\n';
  (void)std::fputs(marked.c_str(), stderr);
}

void SayWithHint(const std::string& text, const std::string& advice) {
  Say(advice.empty() ? text : text + "\nhint: " + advice);
}

// Standard output goes where standard error goes from here on; the answer is what it was before.
int TakeOverStandardOutput() {
  const int out = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (out == -1 || ::dup2(STDERR_FILENO, STDOUT_FILENO) == -1) {
    throw Problem(kWrongUsage, std::string("standard output cannot be used: ") + std::strerror(errno),
                  "run vexadx with standard output and standard error open");
  }
  return out;
}

// How many bytes at the end of the text begin a UTF-8 character that the text does not finish.
std::size_t UnfinishedBytes(std::string_view text) {
  const std::size_t longest = std::min<std::size_t>(3, text.size());
  for (std::size_t count = 1; count <= longest; ++count) {
    const auto byte = static_cast<unsigned char>(text[text.size() - count]);
    if (byte < 0x80) return 0;
    if (byte < 0xC0) continue;  // inside a character
    const std::size_t length = byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
    return count < length ? count : 0;
  }
  return 0;
}

}  // namespace

const char* Meaning(int code) {
  const char* text = vexadx::ResultText(code);
  return text ? text : "code of the engine";
}

std::string EndText(const vexadx::Death& death) {
  if (!death.hasEnded) return "no longer answers";
  const std::string step = std::string(" ") + vexadx::StepText(death.step);
  if (death.status == -1) return "ended" + step;
  if (!WIFSIGNALED(death.status)) return "ended with exit status " + std::to_string(WEXITSTATUS(death.status)) + step;
  const int signal = WTERMSIG(death.status);
  return "was ended by signal " + std::to_string(signal) + " (" + ::strsignal(signal) + ")" + step;
}

Report::Report(bool json) : m_json(json), m_out(json ? TakeOverStandardOutput() : STDOUT_FILENO) {}

Report::~Report() {
  if (m_json) (void)::close(m_out);
}

void Report::Error(const Problem& problem) {
  SayWithHint(std::string("error: ") + problem.what(), problem.Advice());
  if (m_json) WriteLine(Line({{"type", "error"}, {"message", problem.what()}, {"advice", problem.Advice()}}));
}

void Report::Warning(const std::string& message, const std::string& advice) {
  SayWithHint("warning: " + message, advice);
  if (m_json) WriteLine(Line({{"type", "warning"}, {"message", message}, {"advice", advice}}));
}

void Report::Output(std::string_view text) {
  const std::lock_guard guard(m_guard);
  m_unfinished.append(text);
  const std::size_t whole = m_unfinished.size() - UnfinishedBytes(m_unfinished);
  const std::string finished = m_unfinished.substr(0, whole);
  m_unfinished.erase(0, whole);
  WriteText(finished);
}

void Report::Start(const StartResult& result, bool verbose) {
  if (verbose) {
    Say("engine " + result.engine + ": started in " + TimeText(result.seconds) +
        (result.process == 0 ? "" : ", process " + std::to_string(result.process)));
  }
  if (!m_json) return;
  WriteLine(
      Line({{"type", "start"}, {"engine", result.engine}, {"process", result.process}, {"seconds", result.seconds}}));
}

void Report::Block(const BlockResult& result, bool verbose) {
  if (verbose || result.code != vexadx::kSuccess) {
    Say("block " + result.name + (result.interrupted ? ": interrupted" : "") + ": code " + std::to_string(result.code) +
        " (" + Meaning(result.code) + "), " + TimeText(result.seconds));
  }
  if (!m_json) return;
  WriteLine(Line({{"type", "block"},
                  {"name", result.name},
                  {"code", result.code},
                  {"meaning", Meaning(result.code)},
                  {"interrupted", result.interrupted},
                  {"timedOut", result.timedOut.has_value()},
                  {"seconds", result.seconds}}));
}

// Of a stack the beginning says most, of other lines the end.
void Report::Death(const std::string& engine, const vexadx::Death& death) {
  if (m_json) {
    const bool isKnown = death.hasEnded && death.status != -1;
    const bool isSignal = isKnown && WIFSIGNALED(death.status);
    WriteLine(Line({{"type", "death"},
                    {"engine", engine},
                    {"signal", isSignal ? Json(WTERMSIG(death.status)) : Json()},
                    {"exitStatus", isKnown && !isSignal ? Json(WEXITSTATUS(death.status)) : Json()},
                    {"step", vexadx::StepText(death.step)},
                    {"lastLines", death.lastLines},
                    {"stack", death.stack}}));
    return;
  }
  const bool hasStack = !death.stack.empty();
  std::vector<std::string> lines = GetListFromDelims(hasStack ? death.stack : death.lastLines, "\n");
  std::erase(lines, "");
  const std::size_t more = lines.size() - std::min(lines.size(), kLinesShown);
  const auto begin = lines.begin() + static_cast<std::ptrdiff_t>(hasStack ? 0 : more);
  std::string text;
  for (auto line = begin; line != lines.end() - static_cast<std::ptrdiff_t>(hasStack ? more : 0); ++line) {
    text += "\n  " + line->substr(0, kLineShown);
  }
  if (!text.empty()) Say("the process of the engine " + engine + " wrote last:" + text);
}

void Report::Engine(const EngineState& engine) {
  if (m_json) {
    WriteLine(Line({{"type", "engine"},
                    {"name", engine.name},
                    {"found", engine.found},
                    {"library", engine.library},
                    {"reason", engine.reason}}));
    return;
  }
  WriteLine(engine.name + (engine.found ? "\tfound\t" + engine.library : "\tnot found\t" + engine.reason));
}

void Report::Check(const CheckResult& result) {
  if (m_json) {
    WriteLine(Line({{"type", "check"},
                    {"engine", result.engine},
                    {"check", result.check},
                    {"ok", result.ok},
                    {"detail", result.detail},
                    {"advice", result.advice}}));
    return;
  }
  const std::string subject = result.engine.empty() ? result.check : result.engine + ' ' + result.check;
  WriteLine(subject + (result.ok ? ": ok: " : ": problem: ") + result.detail);
  if (!result.ok) WriteLine("  to do: " + result.advice);
}

void Report::Rule(const RuleResult& result) {
  if (m_json) {
    WriteLine(Line({{"type", "rule"},
                    {"name", result.name},
                    {"rule", result.rule},
                    {"result", result.result},
                    {"detail", result.detail},
                    {"seconds", result.seconds}}));
    return;
  }
  WriteLine(result.name + ": " + result.result + ": " + result.rule);
  if (!result.detail.empty()) WriteLine("  " + result.detail);
}

void Report::ListedRule(const std::string& subject, const std::string& name, const std::string& rule) {
  WriteLine(m_json ? Line({{"type", "rule"}, {"for", subject}, {"name", name}, {"rule", rule}})
                   : subject + ' ' + name + ": " + rule);
}

int Report::End(int status) {
  if (m_json) WriteLine(Line({{"type", "end"}, {"status", status}}));
  if (m_writeError == 0) return status;
  SayWithHint(std::string("error: standard output cannot be written: ") + std::strerror(m_writeError),
              "check the file or the disk it goes to");
  return status == kAllSucceeded ? kWrongUsage : status;
}

void Report::WriteLine(const std::string& line) {
  const std::lock_guard guard(m_guard);
  WriteText(std::exchange(m_unfinished, {}));  // no rest has come
  Write(line + '\n');
}

// REQUIRES: m_guard is held.
void Report::WriteText(const std::string& text) {
  if (!text.empty()) Write(Line({{"type", "output"}, {"text", text}}) + '\n');
}

// REQUIRES: m_guard is held.
void Report::Write(std::string_view bytes) {
  while (!bytes.empty() && m_writeError == 0) {
    const ssize_t count = ::write(m_out, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      m_writeError = errno;
    }
  }
}
