// in_private_root RESOURCES COMMAND...: runs a command with a private "/usr/lumen" that holds the resources and nothing
// else. Ends with status 77 where the system allows no such thing.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <unistd.h>

#include "support/private_root.h"

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fputs("usage: in_private_root RESOURCES COMMAND...\n", stderr);
        return 2;
    }
    if (const auto obstacle = private_root::enter()) {
        std::printf("skipped: %s\n", obstacle->c_str());
        return 77;
    }
    try {
        std::filesystem::copy(argv[1], private_root::make_directories("resources"),
                              std::filesystem::copy_options::recursive);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "in_private_root: %s\n", failure.what());
        return 1;
    }
    execv(argv[2], argv + 2);
    std::perror(argv[2]);
    return 1;
}
