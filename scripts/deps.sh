#!/usr/bin/env bash
# Installs the build and test tools this project needs, and any packages
# named as arguments, when they are missing and we are root. Debian packages
# only.
set -euo pipefail

need=()
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "ok installed"; }
for pkg in g++ cmake make python3 googletest libgtest-dev libgmock-dev libbenchmark-dev \
           g++-multilib iproute2 "$@"; do
   have_pkg "$pkg" || need+=("$pkg")
done

if ((${#need[@]})); then
   if [[ $(id -u) -ne 0 ]]; then
      echo "missing packages: ${need[*]} (run as root, or install them)" >&2
      exit 1
   fi
   echo "installing: ${need[*]}"
   export DEBIAN_FRONTEND=noninteractive
   apt-get update -qq
   apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi
