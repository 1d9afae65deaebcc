#pragma once

namespace plugin {

using ErrorFunction = void (*)(const char* type, const char* message, const char* traceback, int line);

// Whom to tell what a failed block said, texts in UTF-8; null for nobody. Any thread.
ErrorFunction HostErrors();

}  // namespace plugin
