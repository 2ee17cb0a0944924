// The messages' texts by id: as the code has them, and as each bundle and each catalog file of the build has them.
#pragma once

#include <map>
#include <string>
#include <vector>

using Texts = std::map<std::string, std::string>;

/// A language that the messages were translated to.
struct Translation {
    const char *bundle;
    const char *catalog; // below the resources
};
inline constexpr Translation translations[] = {
    {"ja", "ja_JP.UTF-8/ZELTqzfi.cat"},
    {"zh", "zh_CN.UTF-8/ZELTqzfi.cat"},
};

/// The texts that the code has built in: the front end's, the utility layer's and those of libfi.so.
Texts english_texts();

/// The texts of one compiled bundle, without those that it would inherit. Fails the test when it cannot be read.
Texts bundle_texts(const char *locale);

/// The ids of some texts, sorted.
std::vector<std::string> ids_of(const Texts &texts);
