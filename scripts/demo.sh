#!/usr/bin/env bash
# demo.sh BUILD_DIR: runs the sample programs of a release build.
set -euo pipefail
dir=${1:-build/release}
"$dir/ibp-msgdemo"
