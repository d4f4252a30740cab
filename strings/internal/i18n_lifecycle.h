// The internationalisation share of the strings component's start-up and
// shut-down work (natural-order switch, dictionary release).
#ifndef ZMXUTI_STRINGS_INTERNAL_I18N_LIFECYCLE_H
#define ZMXUTI_STRINGS_INTERNAL_I18N_LIFECYCLE_H

namespace zmx {
namespace strings_internal {

// Sets the natural-order switch from ZMX_USE_NATURAL_ORDER_SORT. Loads nothing.
void I18nStartUp();
// Releases the translation dictionary.
void I18nShutDown();

}  // namespace strings_internal
}  // namespace zmx

#endif  // ZMXUTI_STRINGS_INTERNAL_I18N_LIFECYCLE_H
