#pragma once

#include <string>

#include "vexadx_export.h"

// What the host prepares for one run of the Java extension: where the extension lies, the command to run, and bytes for
// it that are sent as they are. There is one such message in a process, and every object reads and writes it. For the
// one thread that runs the Java extension.
class VEXADX_API JavaExtensionSmb {
 public:
  // Leave the message as it is.
  JavaExtensionSmb();
  ~JavaExtensionSmb();  // NOLINT(performance-trivially-destructible): exported, like every operation

  void SetExtensionPath(std::string path);
  std::string GetExtensionPath();
  void SetCommandName(std::string name);
  std::string GetCommandName();

  // Whether the extension is a package; true unless said otherwise.
  void SetPackageMode(bool isPackage);
  bool IsPackageMode();

  // The data: first its length in bytes, then a pointer to as many, which are copied. The copy belongs to the message
  // and is valid until the next SetSendBuf or CleanUp; null when there is none, or was no memory for it. The length
  // stays what was last set.
  void SetDataLen(int length);
  int GetDataLen();
  void SetSendBuf(const void* data);
  void* GetSendBuf(int& length);

  // Releases the data and sets everything back but its length.
  void CleanUp();

 private:
  VEXADX_HIDDEN static std::string m_extensionPath;
  VEXADX_HIDDEN static std::string m_commandName;
  VEXADX_HIDDEN static bool m_isPackage;
  VEXADX_HIDDEN static int m_dataLen;
  VEXADX_HIDDEN static void* m_data;  // from malloc
};
