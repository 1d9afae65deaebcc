#include "dxglobals.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>

namespace {

std::atomic<bool> gDXGlobalInit{false};
std::atomic<bool> gIN_STAT{false};
std::atomic<XManager*> gXManager{nullptr};
std::atomic<XPipeManager*> gXPipeManager{nullptr};
std::atomic<JavaPlugInSocket*> gExtSocket{nullptr};

// Guards the two below: several threads may be the first to ask for the home.
std::mutex gVexaHomeGuard;
std::string gVexaHome;
bool gVexaHomeTaken = false;  // "/" is a home whose text is empty

void takeHome(const char* home) {
  gVexaHome = home;
  gVexaHomeTaken = true;
  if (gVexaHome.back() == '/') gVexaHome.pop_back();
}

bool isEmpty(const char* text) { return !text || *text == '\0'; }

}  // namespace

bool IsDXGlobalInit() { return gDXGlobalInit; }
void SetDXGlobalInitFin(bool finished) { gDXGlobalInit = finished; }

bool IsInStat() { return gIN_STAT; }
void SetInStat(bool inStat) { gIN_STAT = inStat; }

XManager* GetXManager() { return gXManager; }
void SetXManager(XManager* manager) { gXManager = manager; }

XPipeManager* GetXPipeManager() { return gXPipeManager; }
void SetXPipeManager(XPipeManager* manager) { gXPipeManager = manager; }

JavaPlugInSocket* GetJavaExtSocket() { return gExtSocket; }
void SetavaExtSocket(JavaPlugInSocket* socket) { gExtSocket = socket; }

const char* GetVEXAHOME() {
  const std::lock_guard guard(gVexaHomeGuard);
  if (!gVexaHomeTaken) {
    const char* home = std::getenv("VEXA_HOME");
    if (!isEmpty(home)) takeHome(home);
  }
  return gVexaHome.c_str();
}

void SetVEXAHOME(const char* home) {
  if (isEmpty(home)) return;
  const std::lock_guard guard(gVexaHomeGuard);
  takeHome(home);
}
