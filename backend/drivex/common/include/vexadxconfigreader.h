#pragma once

#include <map>
#include <string>
#include <vector>

#include "PlugInConfigReader.h"
#include "vexadx_export.h"
#include "xconfigoptions.h"

// The process-wide reader of the configuration file, bin/vexadxcfg.ini under the home directory (GetVEXAHOME). An
// option set is read once, on the first request, and kept as long as the reader lives; later changes of the file are
// not seen. A file, section or key that is missing gives empty values; nothing is reported.
//
// GetInstance, GetOptions and GetNGlobalOptions may be called from any thread.
class VEXADX_API VexaDXConfigReader : public PlugInConfigReader {
 public:
  static const std::string SECTION_SUPPORT_LANG;
  static const std::string SECTION_VERSION;

  // The single instance, null until GetInstance makes it. The host may delete it; the next GetInstance makes another.
  static VexaDXConfigReader* m_instance;

  static VexaDXConfigReader* GetInstance();
  static XConfigOptions* GetInstance(const std::string& xName);  // the instance's GetOptions(xName)

  VexaDXConfigReader();
  explicit VexaDXConfigReader(const std::string& xName);
  ~VexaDXConfigReader() override;  // deletes every option set handed out
  VexaDXConfigReader(const VexaDXConfigReader&) = delete;
  VexaDXConfigReader& operator=(const VexaDXConfigReader&) = delete;

  // A copy of the option set of the X that SetXName named.
  virtual XConfigOptions GetOptions();

  // The option set of an X, owned by the reader.
  virtual XConfigOptions* GetOptions(const std::string& xName);

  virtual void SetXName(const std::string& xName);
  virtual std::string GetXName();

  // One value straight from the file: at most 2047 characters, the default when it is missing or empty, trimmed of
  // blanks either way. Unlike an option set it finds keys without regard to case and with blanks around "=".
  virtual std::string GetOption(const std::string& section, const std::string& key, const std::string& defaultValue);

  // The full path of the configuration file, from the home directory at construction.
  virtual std::string GetConfigFullPath();

  // The values of the sections "SUPPORTED_LANG" and "version": the set itself, owned by the reader, or a copy.
  XConfigOptions* GetNGlobalOptions();
  XConfigOptions GetGlobalOptions();

  // The X names of the configuration, as written between the ";".
  std::vector<std::string> GetSupportLanguage();

  // Whether the name is one of them, with case; always true for "JAVAEXTENSION".
  bool IsSupportLanguage(const std::string& xName);

  std::string GetTracePath();
  std::string GetVersion();
  std::string GetVersionMajor();
  std::string GetVersionMinor();
  std::string GetVersionPatch();
  std::string GetVersionBugfix();

  // Appends every entry of the section, in file order. A key is taken as written, trailing blanks included; a value
  // keeps its leading blanks and is empty when the line has no "=".
  void RetrieveKeyValue(const char* path, const char* section, std::vector<std::string>& keys,
                        std::vector<std::string>& values);

 private:
  std::string m_configPath;
  std::string m_xName;
  std::map<std::string, XConfigOptions*> m_optionSets;  // owned
};
