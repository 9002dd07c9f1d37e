#!/usr/bin/env bash
# Installs the Debian packages the build needs when they are missing. With --bench it also
# installs the benchmark peer (OpenCV), which stays optional: failing to get it is not an error.
# With --fuzz it also installs clang 14 with its libFuzzer, sanitizer runtimes, OpenMP runtime
# and symbolizer (needed by `make fuzz` only).
set -euo pipefail
need=(cmake g++ make python3 pkg-config libhwy-dev libgtest-dev libbenchmark-dev libpng-dev
  libtinyxml2-dev python3-dev python3-numpy python3-pytest python3-dask python3-distributed)
optional=()
case "${1:-}" in
  --bench) optional=(libopencv-dev libopencv-contrib-dev) ;;
  --fuzz) need+=(clang-14 libclang-rt-14-dev libomp-14-dev llvm-14) ;;
esac
missing=()
for p in "${need[@]}" "${optional[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo > /dev/null; then sudo=sudo; else
    echo "deps: missing packages (${missing[*]}) and not root: install them with apt-get" >&2
    exit 1
  fi
fi
echo "deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
required=()
for p in "${missing[@]}"; do [[ " ${optional[*]} " == *" $p "* ]] || required+=("$p"); done
[ ${#required[@]} -eq 0 ] || $sudo apt-get install -y -qq --no-install-recommends "${required[@]}" > /dev/null
for p in "${optional[@]}"; do
  [[ " ${missing[*]} " == *" $p "* ]] || continue
  $sudo apt-get install -y -qq --no-install-recommends "$p" > /dev/null ||
    echo "deps: optional $p not installed; benchmarks run without the peer" >&2
done
