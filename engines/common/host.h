#pragma once

namespace plugin {

using ErrorFunction = void (*)(const char* type, const char* message, const char* traceback, int line);

// Whom to tell what a failed block said, texts in UTF-8; null for nobody. Any thread.
ErrorFunction HostErrors();

// Whether the process is the language's own. Nothing in it has to be left as the host had it.
bool IsProcessOfLanguage();

}  // namespace plugin
