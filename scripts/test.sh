#!/bin/sh
# Builds with warnings as errors and runs every test (unit and end to end),
# then builds the unit tests with AddressSanitizer + UBSan and runs them again.
set -e
cd "$(dirname "$0")/.."
scripts/deps.sh
jobs=$(nproc)

cmake -S . -B build -DVIGILD_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure

cmake -S . -B build-asan -DVIGILD_WERROR=ON -DVIGILD_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure
