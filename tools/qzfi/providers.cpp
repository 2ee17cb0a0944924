#include "tools/qzfi/providers.h"

#include <algorithm>
#include <array>
#include <iostream>

#include "tools/qzfi/text.h"
#include "tools/qzfi/tool.h"

namespace qzfi::tool {

namespace {

std::string text_at(char *const *texts, std::size_t index) {
    if (texts == nullptr)
        return {};
    for (std::size_t passed = 0; passed < index; ++passed)
        if (texts[passed] == nullptr)
            return {};
    return texts[index] == nullptr ? "" : texts[index];
}

} // namespace

std::vector<Provider> find_providers() {
    std::unique_ptr<qfi_provider_list, Releaser<qzfiapi_free_providers_list>> list;
    std::unique_ptr<qfi_fim_list, Releaser<qzfiapi_free_fim_list>> methods;
    check(qfi_op_enumerate_providers(Out(list)), "list the providers");
    check(qfi_op_enumerate_fims(Out(methods)), "list the methods");
    std::vector<Provider> providers;
    for (const qfi_provider_list *node = list.get(); node != nullptr; node = node->next) {
        const qfi_provider &record = node->provider;
        Provider provider{record.type == QFI_PROVIDER_LOADED, record.provider_id, {}, text_at(record.texts, 0)};
        if (provider.is_loaded)
            provider.method = text_at(record.texts, 1);
        provider.preference = record.hlevel;
        for (const qfi_fim_list *fim = methods.get(); fim != nullptr; fim = fim->next)
            if (provider.is_loaded && provider.id == fim->fim.provider_id) {
                provider.consistency = fim->fim.consistency;
                provider.technology = fim->fim.technology;
            }
        providers.push_back(std::move(provider));
    }
    std::stable_sort(providers.begin(), providers.end(), [](const Provider &one, const Provider &other) {
        return one.is_loaded != other.is_loaded ? one.is_loaded : one.preference > other.preference;
    });
    return providers;
}

std::vector<Provider> refused_providers() {
    std::vector<Provider> providers = find_providers();
    std::erase_if(providers, [](const Provider &provider) { return provider.is_loaded; });
    return providers;
}

void tell_refused(const std::vector<Provider> &refused) {
    for (const Provider &provider : refused)
        std::cerr << "plugin " << printable(provider.id)
                  << " was refused, its method cannot be chosen: " << printable(provider.description) << '\n';
}

Json json_of_refused(const std::vector<Provider> &refused) {
    Json list = Json::array();
    for (const Provider &provider : refused)
        list.push_back({{"file", json_text(provider.id)}, {"reason", json_text(provider.description)}});
    return list;
}

const char *technology_name(uint32_t technology) {
    constexpr std::array names = {"unknown", "snapshot", "clone", "copy"};
    return technology < names.size() ? names[technology] : names[0];
}

std::vector<Filesystem> find_filesystems() {
    std::unique_ptr<qfi_node_list, Releaser<qzfiapi_free_node_list>> list;
    check(qfi_op_enumerate_nodes(nullptr, nullptr, 0, Out(list)), "list the file systems");
    std::vector<Filesystem> filesystems;
    for (const qfi_node_list *node = list.get(); node != nullptr; node = node->next) {
        const auto known = std::find_if(filesystems.begin(), filesystems.end(), [&](const Filesystem &filesystem) {
            return filesystem.path == node->node.uid;
        });
        if (known != filesystems.end())
            known->providers.push_back(node->node.provider_id);
        else
            filesystems.push_back({node->node.uid, node->node.size, {node->node.provider_id}});
    }
    std::sort(filesystems.begin(), filesystems.end(),
              [](const Filesystem &one, const Filesystem &other) { return one.path < other.path; });
    return filesystems;
}

} // namespace qzfi::tool
