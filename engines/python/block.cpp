#include "block.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "interpreter.h"
#include "interrupts.h"

namespace vexapython {
namespace {

constexpr std::string_view kNameHead = "<block ";
constexpr std::string_view kNameTail = ">";
constexpr std::size_t kDigits = 20;  // of the largest block number
constexpr std::size_t kEarlierBlocks = 64;
constexpr std::size_t kLongestKept = 65536;

struct EarlierBlock {
  std::uint64_t number = 0;
  std::string text;
};

// A block while it runs. Blocks may be nested, on one thread or on several.
class RunningBlock {
 public:
  explicit RunningBlock(std::string_view text);
  ~RunningBlock();
  RunningBlock(const RunningBlock&) = delete;
  RunningBlock& operator=(const RunningBlock&) = delete;

  Reference Name() const;
  static std::optional<std::string_view> FindText(std::uint64_t number);

 private:
  const std::uint64_t m_number;
  const std::string_view m_text;
  RunningBlock* m_next;
};

// Guarded by the interpreter lock, like everything of the blocks. The earlier blocks' texts are never destroyed, for
// blocks may run until the process has gone.
std::uint64_t gLastNumber = 0;
RunningBlock* gRunning = nullptr;  // the latest first
std::array<EarlierBlock, kEarlierBlocks>& gEarlier = *new std::array<EarlierBlock, kEarlierBlocks>;

RunningBlock::RunningBlock(std::string_view text)
    : m_number(++gLastNumber), m_text(text), m_next(std::exchange(gRunning, this)) {}

RunningBlock::~RunningBlock() {
  RunningBlock** link = &gRunning;
  while (*link != this) link = &(*link)->m_next;
  *link = m_next;

  EarlierBlock& earlier = gEarlier[m_number % kEarlierBlocks];
  earlier.number = 0;
  if (m_text.size() > kLongestKept) return;
  earlier.text = m_text;
  earlier.number = m_number;
}

Reference RunningBlock::Name() const {
  std::array<char, kNameHead.size() + kDigits + kNameTail.size()> name;
  char* end = name.data() + kNameHead.copy(name.data(), kNameHead.size());
  end = std::to_chars(end, end + kDigits, m_number).ptr;
  end += kNameTail.copy(end, kNameTail.size());
  return Reference(PyUnicode_FromStringAndSize(name.data(), end - name.data()));
}

std::optional<std::string_view> RunningBlock::FindText(std::uint64_t number) {
  for (const RunningBlock* block = gRunning; block; block = block->m_next) {
    if (block->m_number == number) return block->m_text;
  }
  const EarlierBlock& earlier = gEarlier[number % kEarlierBlocks];
  if (earlier.number == number) return earlier.text;
  return std::nullopt;
}

// The number in a block's name; 0, which no block has, for any other name.
std::uint64_t numberOf(std::string_view name) {
  if (!name.starts_with(kNameHead) || !name.ends_with(kNameTail)) return 0;
  name.remove_prefix(kNameHead.size());
  std::uint64_t number = 0;
  std::from_chars(name.data(), name.data() + name.size() - kNameTail.size(), number);
  return number;
}

Reference evaluate(const RunningBlock& block, const char* text) {
  const Reference name = block.Name();
  if (!name) return nullptr;
  const Reference code(Py_CompileStringObject(text, name.get(), Py_file_input, nullptr, -1));
  if (!code) return nullptr;
  PyObject* globals = InterpreterConsole().mainNamespace;
  return Reference(PyEval_EvalCode(code.get(), globals, globals));
}

// Takes the exception that is set.
Reference takeException() {
  PyObject* kind = nullptr;
  PyObject* value = nullptr;
  PyObject* trace = nullptr;
  PyErr_Fetch(&kind, &value, &trace);
  PyErr_NormalizeException(&kind, &value, &trace);
  const Reference ownedKind(kind);
  const Reference ownedTrace(trace);
  if (value && trace) (void)PyException_SetTraceback(value, trace);
  return Reference(value);
}

// The code of a block that ended with the exception that is set, which console.py shows.
int outcome() {
  const Reference exception = takeException();
  const Reference status(PyObject_CallFunctionObjArgs(InterpreterConsole().outcome, exception.get(), nullptr));
  if (!status) {
    PyErr_Clear();  // showing it has failed too: there is nowhere left to say so
    return 1;
  }
  const auto code = static_cast<int>(PyLong_AsLong(status.get()));
  PyErr_Clear();  // a status that fits no integer counts as -1, as it does at the console
  return code;
}

}  // namespace

int RunBlock(const char* text) {
  const InterpreterLock lock;
  const RunningBlock block(text);
  const InterruptTarget target;
  return evaluate(block, text) ? 0 : outcome();
}

PyObject* Source(PyObject* /*module*/, PyObject* name) {
  Py_ssize_t length = 0;
  const char* bytes = PyUnicode_AsUTF8AndSize(name, &length);
  if (!bytes) return nullptr;
  const auto text = RunningBlock::FindText(numberOf({bytes, static_cast<std::size_t>(length)}));
  if (!text) Py_RETURN_NONE;
  return PyBytes_FromStringAndSize(text->data(), static_cast<Py_ssize_t>(text->size()));
}

}  // namespace vexapython
