#!/usr/bin/env bash
# Installs, builds and runs every test: the plain build, the ASan+UBSan build
# of the whole suite, the ThreadSanitizer build of the cache tests, and a
# short libFuzzer run of every parser.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

jobs=$(nproc)
# Rebuilds of other checkouts of the tree reuse the compiler cache.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
(cd build && ctest --output-on-failure)

# The Debian package: lintian-clean, installed into a scratch root and run from there.
bash scripts/check_package.sh build-pkg

# The fleet store: this host's rows for 1,000 simulated hosts in ClickHouse, and the README's queries.
bash tests/fleet/check_fleet.sh build/bin/assetman-run "$PWD" 1000

cmake -S . -B build-asan -DASSETMAN_SANITIZE=address,undefined -DASSETMAN_BENCH=OFF >/dev/null
cmake --build build-asan -j"$jobs"
(cd build-asan && ctest --output-on-failure)

cmake -S . -B build-tsan -DASSETMAN_SANITIZE=thread -DASSETMAN_BENCH=OFF >/dev/null
cmake --build build-tsan -j"$jobs" --target facade_tests svc_test_process_warm svc_library
(cd build-tsan && ctest --output-on-failure -L tsan)

# Every parser of the service under libFuzzer with ASan and UBSan (clang): a
# short run of each fuzzer from its seed corpus in tests/fuzz/corpus.
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DASSETMAN_FUZZ=ON >/dev/null
cmake --build build-fuzz -j"$jobs" --target fuzzers
(cd build-fuzz && ctest --output-on-failure -L fuzz -j"$jobs")
