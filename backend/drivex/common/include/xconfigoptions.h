#pragma once

#include <map>
#include <string>

#include "vexadx_export.h"

// The options of one X: the entries of its configuration section, split into defined options and environment
// variables for the X's language runtime.
//
// For R and Python engines (named exactly "R", or a name that contains "PYTHON") some options come from the host's
// Java preferences instead of the file. They are asked again at every call of their getter, which stores the answer,
// empty included; without a Java machine every answer is empty. References stay valid for the life of the set, their
// texts until the option is put or asked again. A set takes no lock: calls on one set must not overlap.
class VEXADX_API XConfigOptions {
 public:
  // The defined keys; every other key is an environment variable.
  static const std::string KEY_LIB_NAME;
  static const std::string KEY_HOME;
  static const std::string KEY_ARGS;
  static const std::string KEY_X;
  static const std::string KEY_VEXADX_VERSION;
  static const std::string KEY_VEXADX_VERSION_MAJOR;
  static const std::string KEY_VEXADX_VERSION_MINOR;
  static const std::string KEY_VEXADX_VERSION_PATCH;
  static const std::string KEY_VEXADX_VERSION_BUGFIX;
  static const std::string KEY_TRACE;
  static const std::string KEY_INNER_PROCESS;
  static const std::string KEY_NESTABLE;
  static const std::string KEY_WORK_ON_32;
  static const std::string KEY_LIB_PATH;
  static const std::string KEY_PKG_PATH;

  explicit XConfigOptions(const std::string& xName);
  XConfigOptions(const XConfigOptions& other);
  virtual ~XConfigOptions();

  const std::string& XName() const;

  // The value as put; empty when the key was never put.
  std::string& GetOption(const std::string& key);

  // Stores the value, replacing an earlier one. An environment variable is also kept with its references to earlier
  // variables expanded.
  void PutOption(const std::string& key, const std::string& value);

  // Whether the key is one of the constants above, exactly and with case.
  static bool IsDefinedKey(const std::string& key);

  // Replaces "${name}", and "$name" before a "/", by the environment variables put so far, always the first reference
  // next, until one is unknown or incomplete; the rest stays as written. A reference met again inside the text that it
  // produced itself counts as unknown, and so does one that would make the text longer than 1 MiB or be the 100,001st.
  // The host's expansion hook then gets the text as both input and output; the answer is the hook's, false without one.
  bool ExpandEnvVars(const std::string& input, std::string& output);

  // Copies the expanded value of an environment variable; false, with `value` unchanged, when there is none.
  bool FindUserEnv(const std::string& name, std::string& value);

  // All environment variables with their expanded values, by ascending name.
  std::map<std::string, std::string>& GetXEnvVars();

  std::string& GetXArgs();
  std::string& GetXHome();     // R and Python: from the Java preferences
  std::string& GetXLibName();  // R and Python: from the Java preferences
  std::string& GetXLibPath();  // always from the Java preferences, where only R has one
  std::string& GetXPkgPath();  // always from the Java preferences, where only R has one

  // True for the exact text "true" only. An engine named exactly "PYTHON" is always nestable.
  bool IsInnerProcess();
  bool IsNestable();
  bool WorkOn32();

  // Asks the preference class for "HOME", "LIB_NAME", "LIB_PATH" or "PKG_PATH" and puts the answer, empty when there
  // is none. Starts the Java machine when it is not running; leaves the calling thread attached or not as it was.
  void GetInfoFromJavaPref(const std::string& key);

 private:
  std::map<std::string, std::string> m_options;
  std::map<std::string, std::string> m_envVars;
  std::string m_xName;
  std::string m_prefClass;
  std::string m_libNameMethod;
  std::string m_homeMethod;
  std::string m_pkgPathMethod;
  std::string m_libPathMethod;
  std::string m_libNameSignature;
  std::string m_homeSignature;
  std::string m_pkgPathSignature;
  std::string m_libPathSignature;
};
