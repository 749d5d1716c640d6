#!/bin/sh
# Builds the daemon and runs it end to end on the built-in demo set-up.
#   scripts/run.sh [--real-scanners]   (ClamAV's clamd and spamd judge the mail
#                                       in place of the fake scanners)
set -e
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)" --target vigild
exec scripts/demo.sh "$@" build/vigild
