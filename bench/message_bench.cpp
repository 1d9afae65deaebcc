// What messages and case data cost: runs of numbers beside one allocation and one copy of the same bytes, strings and
// records beside a codec of the same format written straight down, a cursor beside a plain loop over the same cells.

#include <benchmark/benchmark.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "clexdsmb.h"
#include "cursordatasmb.h"
#include "ratio.h"

namespace {

constexpr int kNumbers = 1'000'000;
constexpr int kStrings = 100'000;
constexpr int kRecords = 10'000;

// A message block's lists, and the one-pass codec of a message that has no more than these.
struct Lists {
  std::vector<int> longs;
  std::vector<double> doubles;
  std::vector<std::string> strings;
  std::vector<dataSet> records;
};

constexpr std::size_t kEmptyTail = 24;  // six counts and lengths of what such a message has not

using Message = std::unique_ptr<char, FreeMemory>;

template <typename Value>
void put(char*& to, const Value& value) {
  std::memcpy(to, &value, sizeof value);
  to += sizeof value;
}

void put(char*& to, const std::string& value) {
  put(to, static_cast<int>(value.size()));
  std::memcpy(to, value.data(), value.size());
  to += value.size();
}

template <typename Value>
void putRun(char*& to, const std::vector<Value>& values) {
  put(to, static_cast<int>(values.size()));
  if (values.empty()) return;
  std::memcpy(to, values.data(), values.size() * sizeof(Value));
  to += values.size() * sizeof(Value);
}

Message build(const Lists& lists) {
  std::size_t length = 28 + lists.longs.size() * 4 + lists.doubles.size() * 8 + kEmptyTail;
  for (const std::string& value : lists.strings) length += 4 + value.size();
  for (const dataSet& value : lists.records) length += 28 + value.m_name.size() + value.m_string.size();
  Message message(static_cast<char*>(std::malloc(length)));
  char* to = message.get();
  put(to, static_cast<int>(length));
  put(to, -1);
  put(to, 0);
  putRun(to, lists.longs);
  putRun(to, lists.doubles);
  put(to, static_cast<int>(lists.strings.size()));
  for (const std::string& value : lists.strings) put(to, value);
  put(to, static_cast<int>(lists.records.size()));
  for (const dataSet& value : lists.records) {
    put(to, value.m_name);
    put(to, value.m_int1);
    put(to, value.m_int2);
    put(to, value.m_int3);
    put(to, value.m_double);
    put(to, value.m_string);
  }
  std::memset(to, 0, kEmptyTail);
  return message;
}

// Each field is taken only where the message still has it.
class Taker {
 public:
  Taker(const char* from, const char* end) : m_from(from), m_end(end) {}

  const char* Bytes(std::size_t length) {
    stopUnless(length <= static_cast<std::size_t>(m_end - m_from), "message cut short");
    const char* bytes = m_from;
    m_from += length;
    return bytes;
  }
  template <typename Value>
  Value Number() {
    Value value;
    std::memcpy(&value, Bytes(sizeof value), sizeof value);
    return value;
  }
  std::size_t Count() {
    const int count = Number<int>();
    stopUnless(count >= 0, "negative count");
    return static_cast<std::size_t>(count);
  }
  void String(std::string& value) {
    const std::size_t size = Count();
    value.assign(Bytes(size), size);
  }
  template <typename Value>
  void Run(std::vector<Value>& values) {
    const std::size_t count = Count();
    const char* bytes = Bytes(count * sizeof(Value));
    values.resize(count);
    if (count > 0) std::memcpy(values.data(), bytes, count * sizeof(Value));
  }

 private:
  const char* m_from;
  const char* m_end;
};

Lists parse(const char* message) {
  int length = 0;
  std::memcpy(&length, message, sizeof length);
  Taker taker(message + 12, message + length);
  Lists lists;
  taker.Run(lists.longs);
  taker.Run(lists.doubles);
  std::size_t count = taker.Count();
  lists.strings.reserve(count);
  for (; count > 0; --count) {
    const std::size_t size = taker.Count();
    lists.strings.emplace_back(taker.Bytes(size), size);
  }
  count = taker.Count();
  lists.records.resize(count);
  for (dataSet& value : lists.records) {
    taker.String(value.m_name);
    value.m_int1 = taker.Number<int>();
    value.m_int2 = taker.Number<int>();
    value.m_int3 = taker.Number<int>();
    value.m_double = taker.Number<double>();
    taker.String(value.m_string);
  }
  (void)taker.Bytes(kEmptyTail);
  return lists;
}

enum Content { kDoubles, kLongs, kShortStrings, kLongStrings, kRecordList, kCommand };

Lists listsOf(Content content) {
  Lists lists;
  switch (content) {
    case kDoubles:
      for (int i = 0; i < kNumbers; ++i) lists.doubles.push_back(i / 7.0);
      break;
    case kLongs:
      for (int i = 0; i < kNumbers; ++i) lists.longs.push_back(i);
      break;
    case kShortStrings:
      lists.strings.assign(kStrings, std::string(12, 's'));
      break;
    case kLongStrings:
      lists.strings.assign(kStrings, std::string(40, 's'));
      break;
    case kRecordList:
      lists.records.assign(kRecords, {"a variable", 1, 2, 3, 0.5, "a label of twenty-four bytes"});
      break;
    case kCommand:
      lists = {{7}, {}, {"PYTHON", "0"}, {}};
  }
  return lists;
}

void fill(CleXDSmb& block, const Lists& lists) {
  for (const int value : lists.longs) block.SetLong(value);
  for (const double value : lists.doubles) block.SetDouble(value);
  for (const std::string& value : lists.strings) block.SetString(value);
  block.SetStruct(lists.records);
}

// The subjects, and the message that they build or parse.
struct Subject {
  explicit Subject(Content content) : lists(listsOf(content)) {
    fill(block, lists);
    block.ContructSendData();
    message = block.GetSendBuf(length);
    copy.assign(message, message + length);
    message = copy.data();
    stopUnless(std::memcmp(::build(lists).get(), message, copy.size()) == 0, "the codecs differ");
    CleXDSmb parsed;
    parsed.ParseBuf(message);
    parsed.ContructSendData();
    int parsedLength = 0;
    const char* again = parsed.GetSendBuf(parsedLength);
    stopUnless(parsedLength == length && std::memcmp(again, message, copy.size()) == 0, "parsed something else");
  }

  void Build() {
    block.ContructSendData();
    benchmark::DoNotOptimize(block.GetSendBuf(length));
  }
  void Parse() const {
    CleXDSmb parsed;
    parsed.ParseBuf(message);
    benchmark::DoNotOptimize(parsed);
  }
  void Copy() const {
    const Message bytes(static_cast<char*>(std::malloc(copy.size())));
    std::memcpy(bytes.get(), message, copy.size());
    benchmark::DoNotOptimize(*bytes);
  }
  void BuildByCodec() const { benchmark::DoNotOptimize(*::build(lists)); }
  void ParseByCodec() const {
    const Lists parsed = ::parse(message);
    benchmark::DoNotOptimize(parsed);
  }

  Lists lists;
  CleXDSmb block;
  std::vector<char> copy;
  const char* message = nullptr;
  int length = 0;
};

using Call = void (*)(Subject&);

void against(benchmark::State& state, Call call, Call limit) {
  const auto content = static_cast<Content>(state.range(0));
  Subject subject(content);
  const int calls = content == kCommand ? kCallsARound : 1;
  const Pair pair = measure(
      state, [&] { call(subject); }, [&] { limit(subject); }, calls);
  state.counters["ratio"] = pair.Ratio();
}

const Call kBuild = [](Subject& subject) { subject.Build(); };
const Call kParse = [](Subject& subject) { subject.Parse(); };
const Call kCopy = [](Subject& subject) { subject.Copy(); };
const Call kBuildByCodec = [](Subject& subject) { subject.BuildByCodec(); };
const Call kParseByCodec = [](Subject& subject) { subject.ParseByCodec(); };

BENCHMARK_CAPTURE(against, build_numbers, kBuild, kCopy)  // at most 1.25
    ->Arg(kDoubles)
    ->Arg(kLongs)
    ->UseManualTime()
    ->Iterations(kRounds);
BENCHMARK_CAPTURE(against, parse_numbers, kParse, kCopy)  // at most 1.25
    ->Arg(kDoubles)
    ->Arg(kLongs)
    ->UseManualTime()
    ->Iterations(kRounds);
BENCHMARK_CAPTURE(against, build, kBuild, kBuildByCodec)  // at most 1.25; a command in under 100 ns
    ->DenseRange(kShortStrings, kCommand)
    ->UseManualTime()
    ->Iterations(kRounds);
BENCHMARK_CAPTURE(against, parse, kParse, kParseByCodec)  // at most 1.25; a command in under 150 ns
    ->DenseRange(kShortStrings, kCommand)
    ->UseManualTime()
    ->Iterations(kRounds);

// Ten million cells: chunks as large as a program keeps at a time, their cases of ten variables.
constexpr std::size_t kVariables = 10;
constexpr std::size_t kCases = CursorDataSmb::CACHE_SIZE / (kVariables * sizeof(OBS));
constexpr std::size_t kChunks = 10'000'000 / (kVariables * kCases) + 1;

struct Totals {
  double sum = 0;
  std::int64_t missing = 0;
};

using Cells = std::vector<OBS>;

void loadChunk(CursorDataSmb& cursor, const Cells& cells) {
  cursor.m_caseCount = kCases;
  cursor.SetCasePtr(cells.data(), static_cast<int>(cells.size() * sizeof(OBS)));
}

void prepare(CursorDataSmb& cursor, VarInfo& info) {
  cursor.m_caseSize = kVariables * sizeof(OBS);
  cursor.m_varInfo.assign(kVariables, &info);
  cursor.m_obsIndex.resize(kVariables);
  std::iota(cursor.m_obsIndex.begin(), cursor.m_obsIndex.end(), 0U);
}

void read(CursorDataSmb& cursor, Totals& totals) {
  do {
    double sum = 0;
    for (unsigned i = 0; i < kVariables; ++i) {
      double value = 0;
      int status = 0;
      cursor.GetNumericValue(i, value, status);
      if (status == 0) {
        sum += value;
      } else {
        ++totals.missing;
      }
    }
    totals.sum += sum;
  } while (cursor.NextCase() == 0);
}

bool isMissing(const VarInfo& variable, std::uint64_t cell, std::uint64_t systemMissing) {
  if (cell == systemMissing) return true;
  const auto same = [cell](OBS value) { return cell == std::bit_cast<std::uint64_t>(value); };
  switch (variable.missKind) {
    case 3:
      return same(variable.missVal3) || same(variable.missVal2) || same(variable.missVal1);
    case 2:
      return same(variable.missVal2) || same(variable.missVal1);
    case 1:
      return same(variable.missVal1);
    default:
      return false;
  }
}

void readPlainly(const Cells& cells, const std::vector<const VarInfo*>& variables, Totals& totals) {
  const auto systemMissing = std::bit_cast<std::uint64_t>(VEXA_SystemMissing());
  const OBS* cell = cells.data();
  for (std::size_t row = 0; row < kCases; ++row) {
    double sum = 0;
    for (unsigned i = 0; i < kVariables; ++i, ++cell) {
      const auto bits = std::bit_cast<std::uint64_t>(*cell);
      if (isMissing(*variables[i], bits, systemMissing)) {
        ++totals.missing;
      } else {
        sum += std::bit_cast<double>(bits);
      }
    }
    totals.sum += sum;
  }
}

// Reading alone from cursors that have their chunks, or with the copy of each chunk that a cursor takes.
void cursorBesidePlainLoop(benchmark::State& state, bool withCopies) {
  Cells cells;
  cells.reserve(kCases * kVariables);
  for (std::size_t i = 0; i < kCases * kVariables; ++i) {
    cells.push_back(i % 100 == 7 ? VEXA_SystemMissing() : AsOBS(static_cast<double>(i % 100)));
  }
  VarInfo info{0, AsOBS(97), AsOBS(98), AsOBS(99), static_cast<int>(state.range(0))};
  const std::vector<const VarInfo*> variables(kVariables, &info);
  std::vector<Cells> chunks(kChunks, cells);
  std::array<CursorDataSmb, kChunks> cursors;
  for (CursorDataSmb& cursor : cursors) prepare(cursor, info);

  Pair pair;
  for ([[maybe_unused]] auto _ : state) {
    for (CursorDataSmb& cursor : cursors) loadChunk(cursor, cells);
    Totals plain;
    Totals byCursor;
    const auto plainly = [&] {
      for (const Cells& chunk : chunks) readPlainly(chunk, variables, plain);
    };
    const auto withCursors = [&] {
      for (CursorDataSmb& cursor : cursors) {
        if (withCopies) loadChunk(cursor, cells);
        read(cursor, byCursor);
      }
    };
    pair.limit.push_back(nanosecondsPerCall(plainly, 1));
    pair.call.push_back(nanosecondsPerCall(withCursors, 1));
    state.SetIterationTime(pair.call.back() * 1e-9);
    stopUnless(plain.sum == byCursor.sum && plain.missing == byCursor.missing, "the totals differ");
  }
  state.counters["call_ns"] = pair.Call();
  state.counters["limit_ns"] = pair.Limit();
  state.counters["ratio"] = pair.Ratio();
}
BENCHMARK_CAPTURE(cursorBesidePlainLoop, reading, false)  // at most 2
    ->ArgName("missing_values")
    ->Arg(0)
    ->Arg(1)
    ->Arg(3)
    ->UseManualTime()
    ->Iterations(30);
BENCHMARK_CAPTURE(cursorBesidePlainLoop, with_copies, true)
    ->ArgName("missing_values")
    ->Arg(0)
    ->Arg(1)
    ->Arg(3)
    ->UseManualTime()
    ->Iterations(30);

}  // namespace

BENCHMARK_MAIN();
