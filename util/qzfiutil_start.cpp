#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>

#include <qzfi/errors.h>
#include <qzfi/settings.h>
#include <qzfi/system.h>
#include <qzfi/version.h>

#include "common/qzfitext.h"
#include "util/qzfiutil_catalog.h"
#include "util/qzfiutil_context.h"
#include "util/qzfiutil_messages.h"
#include "util/qzfiutil_objectid.h"
#include "util/qzfiutil_settings.h"

// Statically initialised and never destroyed: what they guard is also used before start and after shutdown.
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t cv = PTHREAD_COND_INITIALIZER;

namespace qzfi {
namespace {

constexpr char routine[] = "compare_with_lib_version";

/// A version's numbers, most significant first, so that they compare in order.
using Version = std::array<int16_t, 4>;

constexpr Version numbers_of(uint64_t version) {
    return {static_cast<int16_t>(version), static_cast<int16_t>(version >> 16), static_cast<int16_t>(version >> 32),
            static_cast<int16_t>(version >> 48)};
}

struct VersionText {
    explicit VersionText(const Version &version) noexcept {
        qzfi_snprintf(text, sizeof text, "%d.%d.%d.%d", version[0], version[1], version[2], version[3]);
    }
    char text[30]; // four times "-32768", three dots and the terminator are 28
};

} // namespace
} // namespace qzfi

int32_t compare_with_lib_version(uint64_t version, int32_t kind) {
    constexpr qzfi::Version api = qzfi::numbers_of(QFI_API_VERSION);
    const qzfi::Version given = qzfi::numbers_of(version);
    if (given <= api) {
        if (kind == qzfi::application_kind)
            std::copy(given.begin(), given.end(), app_version);
        return 0;
    }
    const qzfi::VersionText given_text{given};
    const qzfi::VersionText api_text{api};
    const qzfi::Message &message =
        kind == qzfi::application_kind ? qzfi::message::application_too_new : qzfi::message::plugin_too_new;
    qzfi::raise<const char *, const char *>(message, qzfi::routine, given_text.text, api_text.text);
    return 1;
}

int32_t qzfi_setlang(int32_t index) {
    const bool is_known = index >= 1 && index < int32_t{std::size(qzfi_langtbl)};
    qzfi::copy_bounded(qzfi_lang, sizeof qzfi_lang, is_known ? qzfi_langtbl[index] : "");
    return 0;
}

int32_t qzfi_uinit0(qfi_handler *handler) {
    util_ehandler = handler;
    return 0;
}

int32_t qzfi_ufini(void) {
    qzfi::reap_closed_contexts();
    qzfi::release_objids();
    qzfi::release_catalog();
    util_ehandler = nullptr;
    return 0;
}
