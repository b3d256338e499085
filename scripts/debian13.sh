#!/usr/bin/env bash
# Debian 13 ("trixie"): scripts/debian-root.sh trixie, which says what the
# commands do. DEBIAN13_STEPS and DEBIAN13_MIRROR still work, as
# DEBIAN_ROOT_STEPS and DEBIAN_ROOT_MIRROR.
#
#   bash scripts/debian13.sh [root DIR | check DIR | remove DIR |
#                             shell DIR [COMMAND] | bench DIR [OUTPUT]]
set -euo pipefail
[ -z "${DEBIAN13_STEPS:-}" ] || export DEBIAN_ROOT_STEPS="$DEBIAN13_STEPS"
[ -z "${DEBIAN13_MIRROR:-}" ] || export DEBIAN_ROOT_MIRROR="$DEBIAN13_MIRROR"
exec bash "$(dirname "$0")/debian-root.sh" trixie "$@"
