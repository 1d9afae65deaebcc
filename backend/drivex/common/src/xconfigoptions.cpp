#include "xconfigoptions.h"

#include <jni.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "dxutils.h"
#include "hoststateguard.h"
#include "jniaccessor.h"
#include "vexajvm.h"

const std::string XConfigOptions::KEY_LIB_NAME = "LIB_NAME";
const std::string XConfigOptions::KEY_HOME = "HOME";
const std::string XConfigOptions::KEY_ARGS = "ARGS";
const std::string XConfigOptions::KEY_X = "X";
const std::string XConfigOptions::KEY_VEXADX_VERSION = "VexadxVersion";
const std::string XConfigOptions::KEY_VEXADX_VERSION_MAJOR = "VexadxVersionMajor";
const std::string XConfigOptions::KEY_VEXADX_VERSION_MINOR = "VexadxVersionMinor";
const std::string XConfigOptions::KEY_VEXADX_VERSION_PATCH = "VexadxVersionPatch";
const std::string XConfigOptions::KEY_VEXADX_VERSION_BUGFIX = "VexadxFixPack";
const std::string XConfigOptions::KEY_TRACE = "TRACE";
const std::string XConfigOptions::KEY_INNER_PROCESS = "INNER_PROCESS";
const std::string XConfigOptions::KEY_NESTABLE = "NESTABLE";
const std::string XConfigOptions::KEY_WORK_ON_32 = "WORK_ON_32";
const std::string XConfigOptions::KEY_LIB_PATH = "LIB_PATH";
const std::string XConfigOptions::KEY_PKG_PATH = "PKG_PATH";

namespace {

constexpr std::string_view kTrue = "true";

// More than any process can be given as one environment variable; what grows past it is a mistake in the file.
constexpr std::size_t kLongestExpansion = std::size_t{1024} * 1024;

// Variables that refer to each other can ask for any number of replacements without growing the text.
constexpr int kMostReplacements = 100'000;

bool isREngine(const std::string& xName) { return xName == "R"; }
bool isPythonEngine(const std::string& xName) { return xName.find("PYTHON") != std::string::npos; }
bool hasPreferences(const std::string& xName) { return isREngine(xName) || isPythonEngine(xName); }

// "${name}", or "$name" before a "/", from `begin` up to `end`.
struct Reference {
  std::size_t begin;
  std::size_t end;
  std::string name;
};

// The first reference at or after `from`; none when it is not complete, since expansion never looks past a "$" that
// does not start a reference.
std::optional<Reference> firstReference(const std::string& text, std::size_t from) {
  const std::size_t dollar = text.find('$', from);
  if (dollar == std::string::npos || dollar + 1 == text.size()) return std::nullopt;
  const bool braced = text[dollar + 1] == '{';
  const std::size_t nameBegin = dollar + (braced ? 2 : 1);
  const std::size_t nameEnd = text.find(braced ? '}' : '/', nameBegin);
  if (nameEnd == std::string::npos) return std::nullopt;
  return Reference{dollar, nameEnd + (braced ? 1 : 0), text.substr(nameBegin, nameEnd - nameBegin)};
}

// Remembers which references produced the text at the front of what is still to be searched, so that a reference
// standing in its own product is recognised. The ends are counted from the end of the text: replacements in front do
// not move them.
class ProducedText {
 public:
  // Forgets the products that end at or before the position.
  void MoveTo(std::size_t position, std::size_t textSize) {
    while (!m_products.empty() && textSize - m_products.back().afterEnd <= position) m_products.pop_back();
  }

  bool IsProductOf(const std::string& name) const {
    return std::any_of(m_products.begin(), m_products.end(), [&](const Product& p) { return p.name == name; });
  }

  // A product that began inside another one and consumed text behind it still counts as that one's: so the products
  // nest, and since no name nests in itself, expansion ends.
  void Add(const std::string& name, std::size_t afterEnd) {
    for (Product& outer : m_products) outer.afterEnd = std::min(outer.afterEnd, afterEnd);
    m_products.push_back({name, afterEnd});
  }

 private:
  struct Product {
    std::string name;
    std::size_t afterEnd;  // characters of the text behind this product
  };
  std::vector<Product> m_products;  // outermost first
};

// The static method of a preference class that answers one option.
struct PreferenceMethod {
  const std::string& className;
  const std::string& name;
  const std::string& signature;
};

// The attached state of the thread is as before when this ends.
class AttachedThread {
 public:
  explicit AttachedThread(VexaJVM& jvm) : m_jvm(jvm), m_env(jvm.AttachCurrentThread()) {}
  ~AttachedThread() {
    if (m_env) m_jvm.DetachCurrentThread();
  }
  AttachedThread(const AttachedThread&) = delete;
  AttachedThread& operator=(const AttachedThread&) = delete;

  JNIEnv* Env() const { return m_env; }

 private:
  VexaJVM& m_jvm;
  JNIEnv* m_env;
};

// Held while the Java machine is started: one thread does. Outer to the bridge's and the tracer's locks.
std::mutex gStartGuard;

bool startedJVM(VexaJVM& jvm) {
  const std::lock_guard lock(gStartGuard);
  if (jvm.IsStarted()) return true;
  const HostStateGuard guard("the start of the Java machine");
  return jvm.StartJVM();
}

// Empty when there is no Java machine, class or method, or when the method throws or answers null.
std::string askPreference(const PreferenceMethod& method, const std::string& xName) {
  VexaJVM& jvm = *VexaJVM::GetInstance();
  if (!startedJVM(jvm)) return "";
  const AttachedThread thread(jvm);
  JNIEnv* env = thread.Env();
  if (!env) return "";

  JNIAccessor accessor(env);
  const jclass preferences = accessor.setClass(method.className);
  const jmethodID id = accessor.setStaticMethod(method.name, method.signature);
  if (!id) return "";
  const jobject answer = isREngine(xName)
                             ? env->CallStaticObjectMethod(preferences, id)
                             : env->CallStaticObjectMethod(preferences, id, accessor.ToJString(xName, nullptr));
  if (env->ExceptionCheck()) {
    env->ExceptionClear();
    return "";
  }
  return accessor.FromJString(static_cast<jstring>(answer), nullptr);
}

}  // namespace

XConfigOptions::XConfigOptions(const std::string& xName) : m_xName(xName) {
  if (isREngine(xName)) {
    m_prefClass = "com/vexa/rcfg/RCfg";
    m_libNameMethod = "getRInvokeLibName";
    m_homeMethod = "getRPath";
    m_pkgPathMethod = "getRPackageInstallPath";
    m_libPathMethod = "getRInvokeLibPath";
    for (std::string* s : {&m_libNameSignature, &m_homeSignature, &m_pkgPathSignature, &m_libPathSignature}) {
      *s = "()Ljava/lang/String;";
    }
  } else if (isPythonEngine(xName)) {
    m_prefClass = "com/vexa/pythoncfg/PythonCfg";
    m_libNameMethod = "getPythonInvokeLibName";
    m_homeMethod = "getPythonPath";
    m_libNameSignature = m_homeSignature = "(Ljava/lang/String;)Ljava/lang/String;";
  }
}

XConfigOptions::XConfigOptions(const XConfigOptions& other) = default;

XConfigOptions::~XConfigOptions() = default;

const std::string& XConfigOptions::XName() const { return m_xName; }

std::string& XConfigOptions::GetOption(const std::string& key) { return m_options[key]; }

void XConfigOptions::PutOption(const std::string& key, const std::string& value) {
  m_options[key] = value;
  if (IsDefinedKey(key)) return;
  std::string expanded;
  (void)ExpandEnvVars(value, expanded);  // the answer only says whether the host's hook took part
  m_envVars[key] = expanded;
}

bool XConfigOptions::IsDefinedKey(const std::string& key) {
  static const std::array kDefined{&KEY_LIB_NAME,
                                   &KEY_HOME,
                                   &KEY_ARGS,
                                   &KEY_X,
                                   &KEY_VEXADX_VERSION,
                                   &KEY_VEXADX_VERSION_MAJOR,
                                   &KEY_VEXADX_VERSION_MINOR,
                                   &KEY_VEXADX_VERSION_PATCH,
                                   &KEY_VEXADX_VERSION_BUGFIX,
                                   &KEY_TRACE,
                                   &KEY_INNER_PROCESS,
                                   &KEY_NESTABLE,
                                   &KEY_WORK_ON_32,
                                   &KEY_LIB_PATH,
                                   &KEY_PKG_PATH};
  return std::any_of(kDefined.begin(), kDefined.end(), [&](const std::string* defined) { return *defined == key; });
}

bool XConfigOptions::ExpandEnvVars(const std::string& input, std::string& output) {
  std::string text = input;
  ProducedText produced;
  std::size_t searched = 0;  // no "$" stands before it
  for (int replacements = 0; replacements < kMostReplacements; ++replacements) {
    const std::optional<Reference> reference = firstReference(text, searched);
    if (!reference) break;
    produced.MoveTo(reference->begin, text.size());
    std::string value;
    if (produced.IsProductOf(reference->name) || !FindUserEnv(reference->name, value)) break;
    if (text.size() + value.size() > kLongestExpansion) break;
    const std::size_t afterEnd = text.size() - reference->end;
    text.replace(reference->begin, reference->end - reference->begin, value);
    produced.Add(reference->name, afterEnd);
    searched = reference->begin;
  }
  output = text;
  return ExpandEnvStr(output, output);
}

bool XConfigOptions::FindUserEnv(const std::string& name, std::string& value) {
  const auto found = m_envVars.find(name);
  if (found == m_envVars.end()) return false;
  value = found->second;
  return true;
}

std::map<std::string, std::string>& XConfigOptions::GetXEnvVars() { return m_envVars; }

std::string& XConfigOptions::GetXArgs() { return GetOption(KEY_ARGS); }

std::string& XConfigOptions::GetXHome() {
  if (hasPreferences(m_xName)) GetInfoFromJavaPref(KEY_HOME);
  return GetOption(KEY_HOME);
}

std::string& XConfigOptions::GetXLibName() {
  if (hasPreferences(m_xName)) GetInfoFromJavaPref(KEY_LIB_NAME);
  return GetOption(KEY_LIB_NAME);
}

std::string& XConfigOptions::GetXLibPath() {
  GetInfoFromJavaPref(KEY_LIB_PATH);
  return GetOption(KEY_LIB_PATH);
}

std::string& XConfigOptions::GetXPkgPath() {
  GetInfoFromJavaPref(KEY_PKG_PATH);
  return GetOption(KEY_PKG_PATH);
}

bool XConfigOptions::IsInnerProcess() { return GetOption(KEY_INNER_PROCESS) == kTrue; }

bool XConfigOptions::IsNestable() { return GetOption(KEY_NESTABLE) == kTrue || m_xName == "PYTHON"; }

bool XConfigOptions::WorkOn32() { return GetOption(KEY_WORK_ON_32) == kTrue; }

void XConfigOptions::GetInfoFromJavaPref(const std::string& key) {
  static const std::string kNone;
  const std::string* name = &kNone;
  const std::string* signature = &kNone;
  if (key == KEY_HOME) {
    name = &m_homeMethod;
    signature = &m_homeSignature;
  } else if (key == KEY_LIB_PATH) {
    name = &m_libPathMethod;
    signature = &m_libPathSignature;
  } else if (key == KEY_PKG_PATH) {
    name = &m_pkgPathMethod;
    signature = &m_pkgPathSignature;
  } else if (key == KEY_LIB_NAME) {
    name = &m_libNameMethod;
    signature = &m_libNameSignature;
  }
  PutOption(key, askPreference({m_prefClass, *name, *signature}, m_xName));
}
