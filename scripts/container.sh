#!/usr/bin/env bash
# A simulated unit as a container image, and a fleet of them from Kubernetes manifests run by
# podman (no cluster, no registry needed):
#   bash scripts/container.sh image BUILD_DIR    the image localhost/fsu-unit from BUILD_DIR's
#                                                Debian packages (scripts/packages.sh makes them)
#   bash scripts/container.sh test BUILD_DIR     the image, then deploy/fleet.yaml played with
#                                                `podman kube play`: three units, each answering
#                                                a web request, then everything removed
# The base is Debian 12's essential packages made by mmdebstrap, kept in
# ${XDG_CACHE_HOME:-~/.cache}/fsusdk/ for a week. Podman here runs with runc and cgroupfs
# and without default ulimits (deploy/containers.conf): what these machines allow.
set -euo pipefail
cd "$(dirname "$0")/.."
action=${1:?usage: container.sh image|test BUILD_DIR}
build=${2:?usage: container.sh image|test BUILD_DIR}
fail() { echo "container: $*" >&2; exit 1; }
bash scripts/setup.sh container >/dev/null

export CONTAINERS_CONF=$PWD/deploy/containers.conf
[ -d "$build/packages" ] || bash scripts/packages.sh "$build"
# Debian's packages that ours need (the simulator's HTTP and YAML libraries and theirs) go into
# the base, which has no apt to fetch them; a base is kept per list.
depends=$(for deb in "$build"/packages/{libfsusdk1,fsu-tools,fsusim}_*_amd64.deb; do dpkg-deb -f "$deb" Depends; done |
  tr ',' '\n' | sed 's/([^)]*)//g; s/|.*//; s/ //g' | grep -v '^libfsusdk' | grep . | sort -u | paste -sd, -)
cache=${XDG_CACHE_HOME:-$HOME/.cache}/fsusdk
base=$cache/fsu-base-bookworm-$(printf '%s' "$depends" | md5sum | cut -c1-12).tar
mkdir -p "$cache"
find "$cache" -name 'fsu-base-*' -mtime +7 -delete
if [ -z "$(find "$base" -mtime -7 2>/dev/null)" ]; then
  echo "container: making the Debian base with mmdebstrap (a few minutes)"
  mmdebstrap --quiet --format=tar --variant=essential --include="hostname,$depends" bookworm "$base.part" >/dev/null
  mv "$base.part" "$base"
fi
if ! podman image exists localhost/fsu-base:bookworm || [ ! -e "$base.imported" ] || [ "$base" -nt "$base.imported" ]; then
  podman import -q "$base" localhost/fsu-base:bookworm >/dev/null
  rm -f "$cache"/*.imported
  touch "$base.imported"
fi

context=$(mktemp -d "${TMPDIR:-/tmp}/fsu-image.XXXXXX")
trap 'rm -rf "$context"' EXIT
mkdir "$context/packages"
for package in libfsusdk1 fsu-tools fsusim; do
  cp "$(find "$build/packages" -name "${package}_*_amd64.deb" -print -quit)" "$context/packages/" ||
    fail "no $package package in $build/packages"
done
cp deploy/Containerfile deploy/fsu-unit "$context/"
podman build -q -t localhost/fsu-unit:latest -f "$context/Containerfile" "$context" >/dev/null
echo "container: image localhost/fsu-unit:latest ($(podman image inspect -f '{{.Size}}' localhost/fsu-unit:latest) bytes)"
[ "$action" = test ] || exit 0

down() { podman kube play --down deploy/fleet.yaml >/dev/null 2>&1 || true; }
down
trap 'down; rm -rf "$context"' EXIT
podman kube play --network none deploy/fleet.yaml >/dev/null
mapfile -t units < <(podman ps --filter label=app=fsu-unit --format '{{.Names}}' | grep -- '-unit$' | sort)
[ ${#units[@]} -eq 3 ] || fail "expected 3 units from deploy/fleet.yaml, found ${#units[@]}: ${units[*]}"
declare -A seen=()
for unit in "${units[@]}"; do
  # The console needs a few seconds to its web mode; ask until it answers, at most 60 s.
  answer=""
  for _ in $(seq 60); do
    answer=$(podman exec "$unit" fsusim web --root /unit read-aidi 2>/dev/null) && [ -n "$answer" ] && break
    sleep 1
  done
  grep -q '^AI 01 ' <<<"$answer" || fail "$unit did not answer read-aidi: $answer $(podman logs --tail 5 "$unit" 2>&1)"
  imsi=$(podman exec "$unit" fsusim status --root /unit --json | sed -n 's/.*"imsi": "\([0-9]*\)".*/\1/p')
  [ -n "$imsi" ] && [ -z "${seen[$imsi]:-}" ] || fail "$unit has no IMSI of its own ('$imsi')"
  seen[$imsi]=1
  echo "container: $unit answered read-aidi, IMSI $imsi"
done
podman pod stats --no-stream --format '{{.Name}} {{.CPU}} {{.MemUsage}}' 2>/dev/null | head -5 || true
echo "container: three units from deploy/fleet.yaml, each with its own identity, answered"
