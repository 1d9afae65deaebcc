#include "vexadx_death.h"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "childoutput.h"
#include "outpstatisticsx.h"
#include "peerwatch.h"

namespace {

// How the languages begin what they tell of a crash of their own.
constexpr std::string_view kCrashes[] = {
    "Fatal Python error: ",
    " *** caught ",  // R
    "# A fatal error has been detected by the Java Runtime Environment",
};

// From the last crash that the text tells of to its end.
std::string stackIn(const std::string& text) {
  std::size_t begin = text.size();
  for (const std::string_view crash : kCrashes) {
    const std::size_t found = text.rfind(crash);
    if (found == std::string::npos || (found > 0 && text[found - 1] != '\n')) continue;
    begin = begin == text.size() ? found : std::max(begin, found);
  }
  return text.substr(begin);
}

}  // namespace

const char* vexadx::StepText(Step step) {
  switch (step) {
    case Step::kStart:
      return "during the start";
    case Step::kReadyCheck:
      return "at the ready check";
    case Step::kBeginRun:
      return "at the beginning of a run";
    case Step::kExecute:
      return "while it executed a block";
    case Step::kEndRun:
      return "at the end of a run";
    case Step::kStop:
      return "during the stop";
    case Step::kIdle:
      break;
  }
  return "while it had nothing to do";
}

vexadx::Death vexadx::DeathOf(OutpStatisticsX& engine) {
  Death death;
  const std::shared_ptr<PeerWatch> watch = engine.lastProcess();
  if (!watch) return death;
  death.hasEnded = watch->HasEnded();
  if (death.hasEnded) death.status = watch->EndStatus().value_or(-1);
  death.byLibrary = watch->WasSignalled();
  death.step = watch->LastStep();
  const std::shared_ptr<ChildOutput> output = watch->Output();
  if (!output) return death;
  try {
    death.lastLines = output->LastLines(death.hasEnded);
    death.stack = stackIn(death.lastLines);
  } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): the rest is what a host out of memory needs
  }
  return death;
}

void vexadx::KeepLastLines(OutpStatisticsX& engine, Streams streams, OutputReceiver receiver) {
  engine.m_output = std::make_shared<ChildOutputSettings>(ChildOutputSettings{streams, std::move(receiver)});
}

void vexadx::HandOnOutput(OutpStatisticsX& engine) {
  const std::shared_ptr<PeerWatch> watch = engine.lastProcess();
  if (const std::shared_ptr<ChildOutput> output = watch ? watch->Output() : nullptr) output->HandOn();
}
