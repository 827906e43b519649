#!/usr/bin/env bash
# The whole test suite: installs what the machine lacks (tools/deps.sh),
# then configures build/default, builds everything and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh
cmake --workflow --preset default
