// What the started framework tells: providers, file systems, stores.
#include "tools/qzfi/doctor.h"
#include "tools/qzfi/providers.h"
#include "tools/qzfi/stores.h"
#include "tools/qzfi/text.h"
#include "tools/qzfi/trial.h"

namespace qzfi::tool {

namespace {

constexpr int patience_seconds = 120;

Json finding(const char *health, const char *check, const std::string &object, const std::string &text,
             const std::string &hint = {}) {
    return {{"health", health}, {"check", check}, {"object", object}, {"text", text}, {"hint", hint}};
}

// One look that fails is a finding, and the next one is taken all the same.
void look(Json &findings, const char *check, void (*look_at)(Json &)) {
    try {
        look_at(findings);
    } catch (const Failure &failure) {
        std::string text = failure.what();
        for (const std::string &cause : failure.causes())
            text += "; " + cause;
        findings.push_back(finding("failure", check, "-", text, "what was found before this says why"));
    }
}

void look_at_providers(Json &findings) {
    const std::vector<Provider> providers = find_providers();
    bool has_loaded = false;
    for (const Provider &provider : providers) {
        has_loaded = has_loaded || provider.is_loaded;
        if (provider.is_loaded)
            findings.push_back(finding("ok", "provider", provider.id,
                                       std::string("loaded; at best ") + consistency_name(provider.consistency)));
        else
            findings.push_back(finding("failure", "provider", provider.id, "refused: " + provider.description,
                                       "rebuild the plugin for this version, or remove it"));
    }
    if (!has_loaded)
        findings.push_back(finding("failure", "provider", "-", "none is loaded: nothing can be frozen",
                                   "install plugins in ROOT/lib/qzfi/plugins, or correct QFI_DIR"));
}

void look_at_filesystems(Json &findings) {
    for (const Filesystem &filesystem : find_filesystems())
        findings.push_back(finding("ok", "file system", filesystem.path, joined(filesystem.providers)));
}

std::string cure_of(const Store &store) {
    if (store.status == QFI_FI_NO_RIGHT)
        return "look into it as root, or as the user who made it";
    if (store.status == QFI_FI_CATALOG)
        return "bring catalog.db back from a backup; until then the images are readable below " + store.path +
               "/images";
    if (store.path.ends_with("/arcvault/images"))
        return "mount it, or bring it back: it is the default store, with the list of the others";
    return "mount it; when it is gone for good, `qzfi repair --forget " + store.path + "`";
}

std::string joined_causes(const Store &store) {
    std::string text = store.why;
    for (const std::string &cause : store.causes)
        text += "; " + cause;
    return text;
}

void look_at_stores(Json &findings) {
    const std::vector<Store> stores = find_stores("");
    if (stores.empty())
        findings.push_back(finding("ok", "store", "-", "none yet: the first freeze makes one"));
    for (const Store &store : stores) {
        const std::string content = counted(store.images, "image", "images") + ", " + grouped(store.debris) +
                                    " half-made, " + size_text(store.available) + " free of " +
                                    size_text(store.capacity);
        if (store.status != QFI_STATUS_OK)
            findings.push_back(finding("warning", "store", store.path, joined_causes(store), cure_of(store)));
        else if (store.debris > 0)
            findings.push_back(finding("warning", "store", store.path, content,
                                       "`qzfi repair` removes what is half-made and nobody is making"));
        else if (store.capacity > 0 && store.available < store.capacity / 100)
            findings.push_back(
                finding("warning", "store", store.path, content, "almost full: `qzfi prune` or `qzfi rm`"));
        else
            findings.push_back(finding("ok", "store", store.path, content));
    }
}

// In the child.
Json look_at_all(const std::string &root) {
    Settings settings;
    settings.root = root;
    const Session session(settings);
    Json findings = Json::array();
    look(findings, "provider", look_at_providers);
    look(findings, "file system", look_at_filesystems);
    look(findings, "store", look_at_stores);
    return findings;
}

Health health_of(const std::string &name) {
    return name == "ok" ? Health::ok : name == "warning" ? Health::warning : Health::failure;
}

} // namespace

void check_framework(const Settings &settings, Findings &findings) {
    const TrialResult trial = try_out(look_at_all, settings.root, patience_seconds);
    if (!trial.failure.empty()) {
        findings.push_back({Health::failure, "framework", settings.root, "asking it " + trial.failure,
                            "a plugin in " + settings.root + "/lib/qzfi/plugins may do that: take them away by turns"});
        return;
    }
    for (const Json &each : trial.result)
        findings.push_back({health_of(each["health"]), each["check"], each["object"], each["text"], each["hint"]});
}

} // namespace qzfi::tool
