#pragma once

// Marks what libvexadxcom exports. Everything else is hidden.
#define VEXADX_API __attribute__((visibility("default")))

// Takes a private helper of an exported class back out.
#define VEXADX_HIDDEN __attribute__((visibility("hidden")))
