#pragma once

#include "vexadx_export.h"

class DriveX;

namespace vexadx {

// Waits, without limit, until the thread that startX made has ended; at once when there is none. Afterwards
// getReturnValue answers the run's code.
VEXADX_API void WaitForRun(DriveX& driver);

}  // namespace vexadx
