#include "tools/qzfi/json.h"

#include <array>
#include <cstdio>
#include <iostream>

#include <qzfi_provider.h>

#include "tools/qzfi/images.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

// Bytes of the UTF-8 character at the front, 0 when there is none. Overlong forms and surrogates are none.
std::size_t utf8_length(std::string_view text) {
    const auto at = [&](std::size_t index) {
        return index < text.size() ? static_cast<unsigned char>(text[index]) : 0u;
    };
    const auto follows = [&](std::size_t index) { return (at(index) & 0xC0u) == 0x80; };
    const unsigned first = at(0);
    if (first < 0x80)
        return 1;
    if (first >= 0xC2 && first <= 0xDF && follows(1))
        return 2;
    if ((first & 0xF0u) == 0xE0 && follows(1) && follows(2) && !(first == 0xE0 && at(1) < 0xA0) &&
        !(first == 0xED && at(1) >= 0xA0))
        return 3;
    if (first >= 0xF0 && first <= 0xF4 && follows(1) && follows(2) && follows(3) && !(first == 0xF0 && at(1) < 0x90) &&
        !(first == 0xF4 && at(1) >= 0x90))
        return 4;
    return 0;
}

} // namespace

std::string json_text(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        if (length == 0) {
            std::array<char, 8> escaped;
            std::snprintf(escaped.data(), escaped.size(), "\\x%02x",
                          static_cast<unsigned>(static_cast<unsigned char>(text[0])));
            result += escaped.data();
            text.remove_prefix(1);
            continue;
        }
        result += text[0] == '\\' ? std::string_view("\\\\") : text.substr(0, length);
        text.remove_prefix(length);
    }
    return result;
}

Json json_of(const qfi_image &image) {
    Json objects = Json::array();
    for (uint32_t index = 0; index < image.object_count; ++index)
        objects.push_back({{"path", json_text(image.objects[index])}, {"image_path", json_text(image.paths[index])}});
    constexpr std::array backups = {"never", "done", "failed"};
    return {{"id", image.image_id},
            {"set", image.set_id},
            {"label", json_text(image.label)},
            {"method", image.fim_id},
            {"provider", image.provider_id},
            {"consistency", consistency_name(image.consistency)},
            {"state", state_name(image.state)},
            {"time", time_json(image.time)},
            {"duration_ns", image.duration_ns},
            {"entries", image.entries},
            {"bytes", image.bytes},
            {"remarks", image.remarks},
            {"digests", image.has_digests != 0},
            {"backup", backups.at(image.backed_up)},
            {"host", json_text(image.host)},
            {"store", json_text(image.store)},
            {"objects", std::move(objects)}};
}

Json json_of(const qfi_report &report) {
    Json items = Json::array();
    for (uint64_t index = 0; index < report.shown; ++index) {
        const qfi_report_item &item = report.items[index];
        items.push_back({{"kind", remark_name(item.kind)},
                         {"object", json_text(item.object)},
                         {"path", json_text(item.path)},
                         {"detail", json_text(item.detail)},
                         {"errno", item.error}});
    }
    return {{"entries", report.entries},
            {"bytes", report.bytes},
            {"changed", report.changed},
            {"remarks", report.count},
            {"items", std::move(items)}};
}

void print(const Json &document) {
    std::cout << document.dump(2) << '\n';
}

} // namespace qzfi::tool
