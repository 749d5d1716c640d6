#!/bin/sh
# Builds with warnings as errors and runs every test (unit and end to end),
# then builds the unit tests with AddressSanitizer + UBSan and runs them again,
# then gives each libFuzzer harness a bounded run.
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

# The fuzz harnesses (clang only), a minute each (the PROXY header parser,
# a small one, half a minute), starting from the seeds in
# tests/fuzz/corpus. What they find and any crash input stay under build-fuzz,
# so nothing lands in the tree; a crash fails the run.
CXX=clang++ cmake -S . -B build-fuzz -DVIGILD_FUZZ=ON -DVIGILD_SANITIZE=ON -DVIGILD_TESTS=OFF
cmake --build build-fuzz -j"$jobs" --target dotstream_fuzz session_fuzz proxyproto_fuzz
mkdir -p build-fuzz/corpus/dotstream_fuzz build-fuzz/corpus/session_fuzz \
  build-fuzz/corpus/proxyproto_fuzz
build-fuzz/dotstream_fuzz -max_total_time=60 -max_len=20000 -artifact_prefix=build-fuzz/ \
  build-fuzz/corpus/dotstream_fuzz tests/fuzz/corpus/dotstream_fuzz
build-fuzz/session_fuzz -max_total_time=60 -max_len=8000 -artifact_prefix=build-fuzz/ \
  build-fuzz/corpus/session_fuzz tests/fuzz/corpus/session_fuzz
build-fuzz/proxyproto_fuzz -max_total_time=30 -max_len=1200 -artifact_prefix=build-fuzz/ \
  build-fuzz/corpus/proxyproto_fuzz tests/fuzz/corpus/proxyproto_fuzz
