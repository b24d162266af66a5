#!/usr/bin/env bash
# Stands in for a version manager's shim (pyenv's python3, rbenv's ruby): a bash
# script that works out what to run in subshells and an external command, then
# execs the real program with the same arguments.
set -euo pipefail
program="$1"
shift
dir="$(cd "${program%/*}" && pwd)"
version="$(echo "3.11.4" | cut -d. -f1,2)"
export SHIM_VERSION="$version"
exec "$dir/${program##*/}" "$@"
