#!/usr/bin/env bash
# Installs the Debian 12 packages arbo needs, only those that are missing.
# Idempotent and quiet when everything is there. Run as root (or with sudo).
set -euo pipefail

packages=(
  erlang-base erlang-dev erlang-eunit erlang-proper erlang-proper-dev erlang-dialyzer erlang-edoc
  erlang-tools erlang-syntax-tools erlang-parsetools erlang-crypto erlang-mnesia
  cmake g++ make libgtest-dev googletest libbenchmark-dev
  rebar3 elixir git
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" != 0 ]; then SUDO=sudo; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
