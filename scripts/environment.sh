# Sourced by the scripts beside it: goes to the top of the tree and prepares the build.
cd "$(dirname "${BASH_SOURCE[0]}")/.."

if command -v ccache >/dev/null; then
  export CMAKE_C_COMPILER_LAUNCHER=${CMAKE_C_COMPILER_LAUNCHER-ccache}
  export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER-ccache}
  # What one clone has compiled serves every other one. Debug information may then name the clone that compiled it.
  export CCACHE_BASEDIR=${CCACHE_BASEDIR-$PWD} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR-1}
fi

# quietly COMMAND...: drops the linker's remark on tempnam, which the log's file names come from by design.
quietly() { "$@" | sed '/: in function `/{N;/tempnam. is dangerous/d}; /tempnam. is dangerous/d'; }

# build_preset NAME: configures and builds it, saying little when all is well.
build_preset() {
  cmake --preset "$1" --log-level=WARNING >/dev/null
  quietly cmake --build --preset "$1" -- --quiet
}
