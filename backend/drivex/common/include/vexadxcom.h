#pragma once

// Everything that libvexadxcom exports.

#include "PlugInConfigReader.h"
#include "PlugInDynamicLoadedLibrary.h"
#include "dxglobals.h"
#include "dxtracer.h"
#include "dxutils.h"
#include "inpstatisticsx.h"
#include "statisticsx.h"
#include "vexadx_codes.h"
#include "vexadx_plugin.h"
#include "vexadxconfigreader.h"
#include "xconfigoptions.h"
