# Install rules: library, headers, pkg-config file, CMake package.
