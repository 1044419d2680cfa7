// Moves KWin's pointer by one pixel through org_kde_kwin_fake_input, which KWin offers only to
// programs an installed desktop entry names with X-KDE-Wayland-Interfaces. Exit 0 when the
// motion was sent and KWin took it, 2 when the interface is not offered.
#include <wayland-client.h>

#include <cstring>

#include "fake-input-client.h"

namespace {

org_kde_kwin_fake_input* fakeInput = nullptr;

void global(void*, wl_registry* registry, uint32_t name, const char* interface, uint32_t) {
    if (std::strcmp(interface, org_kde_kwin_fake_input_interface.name) == 0)
        fakeInput = static_cast<org_kde_kwin_fake_input*>(
            wl_registry_bind(registry, name, &org_kde_kwin_fake_input_interface, 1));
}
void globalRemove(void*, wl_registry*, uint32_t) {}
const wl_registry_listener kRegistry = {global, globalRemove};

}  // namespace

int main() {
    wl_display* display = wl_display_connect(nullptr);
    if (!display) return 1;
    wl_registry_add_listener(wl_display_get_registry(display), &kRegistry, nullptr);
    wl_display_roundtrip(display);
    if (!fakeInput) return 2;
    org_kde_kwin_fake_input_authenticate(fakeInput, "corvi tests", "input for the idle tests");
    org_kde_kwin_fake_input_pointer_motion(fakeInput, wl_fixed_from_int(1), wl_fixed_from_int(1));
    const int result = wl_display_roundtrip(display);
    wl_display_disconnect(display);
    return result < 0 ? 1 : 0;
}
