#!/usr/bin/env bash
# The storm in real time: 500 whole links, their server away for two minutes, five minutes in all. Not part of
# the tests; needs a build: storm-run.sh [build/release] [links]
set -euo pipefail
build=${1:-build/release}
links=${2:-500}
exec "$build/tools/zxfleet/zxfleet" run --links "$links" --away 120 --after 180 --queued 4
