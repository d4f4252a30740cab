// Start-up and shut-down of the strings and translation component.
#include "core/internal/use_counter.h"
#include "core/startup.h"
#include "strings/internal/i18n_lifecycle.h"
#include "strings/internal/string_stats.h"

namespace {
int g_atrUseCount = 0;
}

// Start-up creates the statistics and sets the natural-order switch (it loads
// no dictionary); shut-down releases the dictionary before the statistics report.
void atr_initialize(int& depth) {
  zmx::core_internal::StartUp(g_atrUseCount, depth, [] {
    zmx::strings_internal::CreateStringStats();
    zmx::strings_internal::I18nStartUp();
  });
}

void atr_finalize(int& depth) {
  zmx::core_internal::ShutDown(g_atrUseCount, depth, [] {
    zmx::strings_internal::I18nShutDown();
    zmx::strings_internal::ReportAndFreeStringStats();
  });
}
