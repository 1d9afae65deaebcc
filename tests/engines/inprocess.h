#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "dxglobals.h"
#include "dxtracer.h"
#include "inpstatisticsx.h"
#include "temphome.h"

// Engines on the tests' plug-in libraries, in a home of their own, traced.
class InProcess : public testing::Test {
 protected:
  InProcess() {
    SetVEXAHOME(m_home.Path().c_str());
    m_tracer.open(m_home.Path("trace.log"));
    SetDxTracer(&m_tracer);
  }
  ~InProcess() override { SetDxTracer(nullptr); }

  std::unique_ptr<InpStatisticsX> Engine(const std::string& plugin) {
    if (!std::filesystem::exists(m_home.Path("lib/lib" + plugin + ".dylib"))) m_home.AddPlugin(plugin);
    m_options.PutOption("LIB_NAME", plugin);
    return std::make_unique<InpStatisticsX>(&m_options, true);
  }
  std::vector<std::string> Traced() { return TraceTexts(m_home.Path("trace.log")); }

  TempHome m_home;
  DxTracer m_tracer;
  XConfigOptions m_options{"CTEST"};
};
