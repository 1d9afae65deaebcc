#pragma once

// Everything that libvexadxcom exports.

#include "PlugInConfigReader.h"
#include "PlugInCriticalSection.h"
#include "PlugInDynamicLoadedLibrary.h"
#include "PlugInThreadHot.h"
#include "drivex.h"
#include "dxglobals.h"
#include "dxtracer.h"
#include "dxutils.h"
#include "inpstatisticsx.h"
#include "statisticsx.h"
#include "vexadx_codes.h"
#include "vexadx_plugin.h"
#include "vexadx_run.h"
#include "vexadxconfigreader.h"
#include "xcmdargument.h"
#include "xconfigoptions.h"
