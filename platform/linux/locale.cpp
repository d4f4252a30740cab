// Linux locale query for the platform contract: POSIX per-thread locales.
#include "platform/platform.h"

#include <locale.h>

namespace zmx {
namespace platform {

bool ThreadUsesGlobalLocale() { return uselocale(static_cast<locale_t>(0)) == LC_GLOBAL_LOCALE; }

}  // namespace platform
}  // namespace zmx
