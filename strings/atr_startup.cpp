// Start-up and shut-down of the strings and translation component.
#include "core/internal/use_counter.h"
#include "core/startup.h"
#include "strings/internal/i18n_lifecycle.h"
#include "strings/internal/string_stats.h"

namespace {
int g_atrUseCount = 0;
}

// Locale set-up and dictionary loading join the start-up work, dictionary
// release joins the shut-down work (before the statistics report).
void atr_initialize(int& depth) {
  zmx::core_internal::StartUp(g_atrUseCount, depth, [] {
    zmx::atr_internal::CreateStringStats();
    zmx::strings_internal::I18nStartUp();
  });
}

void atr_finalize(int& depth) {
  zmx::core_internal::ShutDown(g_atrUseCount, depth, [] {
    zmx::strings_internal::I18nShutDown();
    zmx::atr_internal::ReportAndFreeStringStats();
  });
}
