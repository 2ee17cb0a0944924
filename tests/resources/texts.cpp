#include "texts.h"

#include <gtest/gtest.h>
#include <unicode/unistr.h>
#include <unicode/ures.h>

#include <qzfi.h>

#include "fi/fi_library.h"
#include "util/qzfiutil_messages.h"

Texts english_texts() {
    Texts texts;
    for (const qzfi_emsg &row : u_emsgs)
        if (row.id != nullptr)
            texts[row.id] = row.text;
#define QZFI_MESSAGE(name, id, severity, format) texts[id] = format;
    QZFI_MESSAGES(QZFI_MESSAGE)
#undef QZFI_MESSAGE
#define FI_MESSAGE(name, id, severity, format) texts[id] = format;
    FI_MESSAGES(FI_MESSAGE)
#undef FI_MESSAGE
#define FI_STATUS_TEXT(status, text) texts["MSG_QFI_E" + std::to_string(status)] = text;
    FI_STATUS_TEXTS(FI_STATUS_TEXT)
#undef FI_STATUS_TEXT
    return texts;
}

Texts bundle_texts(const char *locale) {
    UErrorCode status = U_ZERO_ERROR;
    UResourceBundle *const bundle = ures_openDirect(QZFI_RESOURCES "/libfi", locale, &status);
    EXPECT_EQ(status, U_ZERO_ERROR) << locale;
    Texts texts;
    while (U_SUCCESS(status) && ures_hasNext(bundle)) {
        const char *id = "";
        int32_t length = 0;
        const UChar *const text = ures_getNextString(bundle, &length, &id, &status);
        EXPECT_TRUE(U_SUCCESS(status)) << locale << " " << id << ": " << u_errorName(status);
        if (U_SUCCESS(status))
            icu::UnicodeString(text, length).toUTF8String(texts[id]);
    }
    ures_close(bundle);
    return texts;
}

std::vector<std::string> ids_of(const Texts &texts) {
    std::vector<std::string> ids;
    for (const auto &[id, text] : texts)
        ids.push_back(id);
    return ids;
}
