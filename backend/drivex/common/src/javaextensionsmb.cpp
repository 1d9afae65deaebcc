#include "javaextensionsmb.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

std::string JavaExtensionSmb::m_extensionPath;
std::string JavaExtensionSmb::m_commandName;
bool JavaExtensionSmb::m_isPackage = true;
int JavaExtensionSmb::m_dataLen = 0;
void* JavaExtensionSmb::m_data = nullptr;

JavaExtensionSmb::JavaExtensionSmb() = default;

JavaExtensionSmb::~JavaExtensionSmb() = default;

void JavaExtensionSmb::SetExtensionPath(std::string path) { m_extensionPath = std::move(path); }

std::string JavaExtensionSmb::GetExtensionPath() { return m_extensionPath; }

void JavaExtensionSmb::SetCommandName(std::string name) { m_commandName = std::move(name); }

std::string JavaExtensionSmb::GetCommandName() { return m_commandName; }

void JavaExtensionSmb::SetPackageMode(bool isPackage) { m_isPackage = isPackage; }

bool JavaExtensionSmb::IsPackageMode() { return m_isPackage; }

void JavaExtensionSmb::SetDataLen(int length) { m_dataLen = length; }

int JavaExtensionSmb::GetDataLen() { return m_dataLen; }

// Copied before the old data goes: it may be what is set.
void JavaExtensionSmb::SetSendBuf(const void* data) {
  const auto length = static_cast<std::size_t>(std::max(m_dataLen, 0));
  void* const copy = data ? std::malloc(length) : nullptr;
  if (data && copy && length > 0) std::memcpy(copy, data, length);
  std::free(std::exchange(m_data, copy));
}

void* JavaExtensionSmb::GetSendBuf(int& length) {
  length = m_dataLen;
  return m_data;
}

void JavaExtensionSmb::CleanUp() {
  std::free(std::exchange(m_data, nullptr));
  m_extensionPath.clear();
  m_commandName.clear();
  m_isPackage = true;
}
