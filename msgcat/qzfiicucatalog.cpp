#include "msgcat/qzfiicucatalog.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <unicode/ustring.h>

#include <qzfi/catalogs.h>

#include "msgcat/qzfiacetext.h"

namespace qzfi_pdk_4_4 {

namespace {

constexpr int32_t succeeded = 0;
constexpr int32_t failed = 3;

/// Appends a text made UTF-8, of which no unit takes more than three bytes; nothing when it is ill-formed. In place:
/// the same bytes from `CCmnStringTool`, in a string of their own, are a tenth more of what a look-up costs.
void append_utf8(std::string &target, const icu::UnicodeString &text) {
    const std::size_t length = target.size();
    const std::size_t capacity = std::min<std::size_t>(3 * static_cast<std::size_t>(text.length()), INT32_MAX);
    target.resize(length + capacity);
    UErrorCode status = U_ZERO_ERROR;
    int32_t added = 0;
    u_strToUTF8(target.data() + length, static_cast<int32_t>(capacity), &added, text.getBuffer(), text.length(),
                &status);
    target.resize(U_SUCCESS(status) ? length + static_cast<std::size_t>(added) : length);
}

} // namespace

CFiIcuMessageCatalog::CFiIcuMessageCatalog(std::string locale, const ACE_String_Base<char> &catalog_name)
    : locale_(std::move(locale)), catalog_name_(qzfi::ace_text(qzfi::bytes_of(catalog_name))) {}

CFiIcuMessageCatalog::~CFiIcuMessageCatalog() = default;

int32_t CFiIcuMessageCatalog::init() {
    const char *const directory = qzfi_msgcatalogdir();
    if (access(directory, F_OK) != 0) {
        // The bundles come later: whoever installs them finds their directory, and the next request looks again.
        (void)mkdir(directory, 0755);
        return failed;
    }
    ACE_String_Base<char> path =
        qzfi::ace_text(std::string{directory}.append("lib").append(qzfi::bytes_of(catalog_name_)));
    bundle_path_.swap(path);
    UErrorCode status = U_ZERO_ERROR;
    // A bundle that did not open answers every key with an error, as none does, so it is kept whatever the status.
    bundle_.reset(new icu::ResourceBundle(bundle_path_.c_str(), icu::Locale(locale_.c_str()), status));
    if (!bundle_)
        return failed;
    // A bundle that stands in by its root is a success, one by a parent locale a failure: callers rely on both.
    return status == U_ZERO_ERROR || status == U_USING_DEFAULT_WARNING ? succeeded : failed;
}

ACE_String_Base<char> CFiIcuMessageCatalog::getMessage(const std::string &message_id, const char *default_text) const {
    std::string message{qzfi::bytes_of(catalog_name_)};
    message += ": ";
    if (bundle_) {
        UErrorCode status = U_ZERO_ERROR;
        const icu::UnicodeString text = bundle_->getStringEx(message_id.c_str(), status);
        if (U_SUCCESS(status)) {
            append_utf8(message, text);
            return qzfi::ace_text(message);
        }
    }
    if (default_text != nullptr)
        return qzfi::ace_text(default_text);
    return qzfi::ace_text(message.append("<").append(message_id).append(">"));
}

CFiMessageCatalogPtr CFiIcuMessageCatalogFactory::allocateCatalog(const char *locale) {
    return CFiMessageCatalogPtr{new CFiIcuMessageCatalog(locale != nullptr ? locale : "", catalog_name_)};
}

CFiMessagePtr CFiIcuMessageCatalogFactory::allocateMessage(qfi_msg_info *record) {
    CFiMessagePtr message{new CFiIcuMessage};
    message->deserialize(record);
    return message;
}

} // namespace qzfi_pdk_4_4
