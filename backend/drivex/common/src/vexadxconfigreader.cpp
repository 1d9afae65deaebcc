#include "vexadxconfigreader.h"

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <utility>

#include "dxglobals.h"
#include "dxutils.h"
#include "profilefile.h"

const std::string VexaDXConfigReader::SECTION_SUPPORT_LANG = "SUPPORTED_LANG";
const std::string VexaDXConfigReader::SECTION_VERSION = "version";
VexaDXConfigReader* VexaDXConfigReader::m_instance = nullptr;

namespace {

const std::string VEXADXCFGNAME = "vexadxcfg.ini";
const std::string VEXADXGLOBALSECTION = "_GLOBAL_";

constexpr std::size_t kValueBytes = 2048;  // with the terminating NUL

// Guards m_instance. Nothing else is locked under it.
std::mutex gInstanceGuard;

// Guards the option sets of every reader. Never held while a set is filled: that calls the host's expansion hook.
std::mutex gOptionSetsGuard;

XConfigOptions* findSet(const std::map<std::string, XConfigOptions*>& sets, const std::string& name) {
  const std::lock_guard guard(gOptionSetsGuard);
  const auto found = sets.find(name);
  return found == sets.end() ? nullptr : found->second;
}

// The set that was stored first stays: pointers to it have been handed out.
XConfigOptions* storeSet(std::map<std::string, XConfigOptions*>& sets, std::unique_ptr<XConfigOptions> set) {
  const std::lock_guard guard(gOptionSetsGuard);
  const auto [entry, added] = sets.emplace(set->XName(), set.get());
  if (added) (void)set.release();  // the map owns it from here on
  return entry->second;
}

}  // namespace

VexaDXConfigReader* VexaDXConfigReader::GetInstance() {
  const std::lock_guard guard(gInstanceGuard);
  if (!m_instance) m_instance = new VexaDXConfigReader;
  return m_instance;
}

XConfigOptions* VexaDXConfigReader::GetInstance(const std::string& xName) { return GetInstance()->GetOptions(xName); }

VexaDXConfigReader::VexaDXConfigReader() : VexaDXConfigReader(std::string()) {}

VexaDXConfigReader::VexaDXConfigReader(const std::string& xName) : m_configPath(VEXADXCFGNAME), m_xName(xName) {
  m_configPath = VexaDXConfigReader::GetConfigFullPath();
}

VexaDXConfigReader::~VexaDXConfigReader() {
  for (const auto& [name, set] : m_optionSets) delete set;
  const std::lock_guard guard(gInstanceGuard);
  if (m_instance == this) m_instance = nullptr;
}

std::string VexaDXConfigReader::GetConfigFullPath() {
  if (m_configPath != VEXADXCFGNAME) return m_configPath;
  std::string path = GetVEXAHOME();
  DecoratePathEnd(path);
  return path + "bin/" + m_configPath;
}

void VexaDXConfigReader::SetXName(const std::string& xName) { m_xName = xName; }

std::string VexaDXConfigReader::GetXName() { return m_xName; }

XConfigOptions VexaDXConfigReader::GetOptions() { return *GetOptions(m_xName); }

XConfigOptions* VexaDXConfigReader::GetOptions(const std::string& xName) {
  if (XConfigOptions* set = findSet(m_optionSets, xName)) return set;
  std::vector<std::string> keys;
  std::vector<std::string> values;
  RetrieveKeyValue(m_configPath.c_str(), xName.c_str(), keys, values);
  auto set = std::make_unique<XConfigOptions>(xName);
  for (std::size_t i = 0; i < keys.size() && i < values.size(); ++i) set->PutOption(keys[i], values[i]);
  return storeSet(m_optionSets, std::move(set));
}

std::string VexaDXConfigReader::GetOption(const std::string& section, const std::string& key,
                                          const std::string& defaultValue) {
  std::array<char, kValueBytes> value;
  const ssize_t length = GetPrivateProfileString(section.c_str(), key.c_str(), defaultValue.c_str(), value.data(),
                                                 value.size(), m_configPath.c_str());
  return trimSpace(length == 0 ? defaultValue : std::string(value.data()));
}

XConfigOptions* VexaDXConfigReader::GetNGlobalOptions() {
  if (XConfigOptions* set = findSet(m_optionSets, VEXADXGLOBALSECTION)) return set;
  const std::array<std::pair<const std::string*, const std::string*>, 7> sources{{
      {&SECTION_SUPPORT_LANG, &XConfigOptions::KEY_X},
      {&SECTION_SUPPORT_LANG, &XConfigOptions::KEY_TRACE},
      {&SECTION_VERSION, &XConfigOptions::KEY_VEXADX_VERSION},
      {&SECTION_VERSION, &XConfigOptions::KEY_VEXADX_VERSION_MAJOR},
      {&SECTION_VERSION, &XConfigOptions::KEY_VEXADX_VERSION_MINOR},
      {&SECTION_VERSION, &XConfigOptions::KEY_VEXADX_VERSION_PATCH},
      {&SECTION_VERSION, &XConfigOptions::KEY_VEXADX_VERSION_BUGFIX},
  }};
  auto set = std::make_unique<XConfigOptions>(VEXADXGLOBALSECTION);
  for (const auto& [section, key] : sources) set->PutOption(*key, GetOption(*section, *key, ""));
  return storeSet(m_optionSets, std::move(set));
}

XConfigOptions VexaDXConfigReader::GetGlobalOptions() { return *GetNGlobalOptions(); }

std::vector<std::string> VexaDXConfigReader::GetSupportLanguage() {
  return GetListFromDelims(GetNGlobalOptions()->GetOption(XConfigOptions::KEY_X), ";");
}

bool VexaDXConfigReader::IsSupportLanguage(const std::string& xName) {
  if (xName == "JAVAEXTENSION") return true;
  const std::vector<std::string> names = GetSupportLanguage();
  return std::find(names.begin(), names.end(), xName) != names.end();
}

std::string VexaDXConfigReader::GetTracePath() { return GetNGlobalOptions()->GetOption(XConfigOptions::KEY_TRACE); }

std::string VexaDXConfigReader::GetVersion() {
  return GetNGlobalOptions()->GetOption(XConfigOptions::KEY_VEXADX_VERSION);
}

std::string VexaDXConfigReader::GetVersionMajor() {
  return GetNGlobalOptions()->GetOption(XConfigOptions::KEY_VEXADX_VERSION_MAJOR);
}

std::string VexaDXConfigReader::GetVersionMinor() {
  return GetNGlobalOptions()->GetOption(XConfigOptions::KEY_VEXADX_VERSION_MINOR);
}

std::string VexaDXConfigReader::GetVersionPatch() {
  return GetNGlobalOptions()->GetOption(XConfigOptions::KEY_VEXADX_VERSION_PATCH);
}

std::string VexaDXConfigReader::GetVersionBugfix() {
  return GetNGlobalOptions()->GetOption(XConfigOptions::KEY_VEXADX_VERSION_BUGFIX);
}

void VexaDXConfigReader::RetrieveKeyValue(const char* path, const char* section, std::vector<std::string>& keys,
                                          std::vector<std::string>& values) {
  const ProfileFile file = OpenProfile(path);
  if (!file || !GotoSectionStart(file.get(), section)) return;
  ProfileLine line;
  while (std::fgets(line.data(), line.size(), file.get())) {
    TrimAll(line.data());
    if (IsSectionHead(line.data())) break;
    const ProfileEntry entry = SplitEntry(line.data());
    if (IsComment(line.data()) || entry.key.empty()) continue;
    keys.emplace_back(entry.key);
    values.emplace_back(entry.value ? entry.value : "");
  }
}
