#include "javaextension.h"

#include <unistd.h>

#include "clexdsmb.h"
#include "installation.h"
#include "javaextensionsmb.h"
#include "problem.h"

std::string JavaProgram() {
  std::string path = InHome("JRE/bin/java");
  if (::access(path.c_str(), X_OK) == 0) return path;
  throw Problem(kNotStarted, "there is no Java runtime: " + path + " is not a program",
                "install a Java runtime (on Debian: apt-get install default-jre-headless), and point the link " +
                    InHome("JRE") + " to it");
}

std::string JavaPlugInArchive() {
  std::string path = InHome("bin/vexajavaplugin.jar");
  if (::access(path.c_str(), R_OK) == 0) return path;
  throw Problem(kNotStarted, "there is no readable archive " + path,
                "put back this file of the installation; it holds the Java extension's program");
}

void PrepareJavaExtension(const CommandLine& commandLine, const Block& block) {
  CleXDSmb message;
  for (const std::string& line : block.lines) message.SetString(line);
  (void)message.ContructSendData();
  int length = 0;
  const char* const bytes = message.GetSendBuf(length);

  JavaExtensionSmb extension;
  extension.SetExtensionPath(commandLine.javaCommand.extensionPath);
  extension.SetCommandName(commandLine.javaCommand.name);
  extension.SetPackageMode(commandLine.javaCommand.isPackage);
  extension.SetDataLen(length);
  extension.SetSendBuf(bytes);
  if (!extension.GetSendBuf(length)) {
    throw Problem(kWrongUsage, block.name + " is too large for one message", "divide it into several blocks");
  }
}
