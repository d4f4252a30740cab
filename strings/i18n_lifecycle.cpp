// Start-up and shut-down work of the internationalisation services.
#include "strings/internal/i18n_lifecycle.h"

#include <cstdlib>

#include "strings/locale.h"
#include "strings/natural_order.h"

namespace zmx {
namespace strings_internal {

// The variable's presence turns natural order off; the inversion is intended.
void I18nStartUp() { atr_setNaturalOrder(std::getenv("ZMX_USE_NATURAL_ORDER_SORT") != nullptr ? 0 : 1); }

void I18nShutDown() { atr_trReleaseDB(); }

}  // namespace strings_internal
}  // namespace zmx
