#pragma once

#include <jni.h>

#include <string>

// Looks up a class and its static methods and converts strings, on one thread's JNI environment. Nothing throws and no
// Java exception is left pending: what cannot be found or made is null, or empty text. Every local reference made on
// this environment during its life, by calls on its results too, is released when it is destroyed; it is destroyed
// before the thread is detached, and after accessors made later. A null environment finds nothing.
class __attribute__((visibility("default"))) JNIAccessor {
 public:
  explicit JNIAccessor(JNIEnv* env);
  ~JNIAccessor();
  JNIAccessor(const JNIAccessor&) = delete;
  JNIAccessor& operator=(const JNIAccessor&) = delete;

  // Selects the class with this JNI name ("com/vexa/rcfg/RCfg").
  jclass setClass(const std::string& name);

  // A static method of the selected class; null for an empty name, or when no class is selected.
  jmethodID setStaticMethod(const std::string& name, const std::string& signature);

  // Converts between Java strings and text in the given encoding; null stands for UTF-8, the only one there is. What is
  // not well-formed on one side becomes U+FFFD on the other.
  jstring ToJString(const std::string& text, const char* encoding);
  std::string FromJString(jstring text, const char* encoding);

 private:
  bool ClearException();

  JNIEnv* m_env;
  jclass m_class = nullptr;
};
