#!/usr/bin/env bash
# Installs the Debian 12 packages Quorvex needs to build, test, fuzz and cross-build.
#
# Idempotent: each package is checked with dpkg first; apt-get runs only when
# something is missing (one `apt-get update`, then one install of the missing
# names). Runs unattended (CI, no stdin). Uses sudo only when not root.
#
#   scripts/setup.sh            install what is missing
#   scripts/setup.sh --check    list what is missing, exit 1 if anything is
set -euo pipefail

PACKAGES=(
  # compilers and build tools
  build-essential cmake ninja-build clang
  libclang-rt-14-dev # libFuzzer, ASan and UBSan runtimes for clang 14
  llvm               # llvm-symbolizer: function names in the clang build's crash reports
  mingw-w64          # Windows cross-build of the libraries; windmc, windres and ld build the
                     # message DLL test fixtures
  # libraries
  libgtest-dev libgmock-dev libsqlite3-dev libpugixml-dev libpcre2-dev libhivex-dev
  libcli11-dev libfmt-dev nlohmann-json3-dev libicu-dev
  libyaml-cpp-dev    # Sigma rules are YAML (quorvex hunt)
  # Disk images (src/images): the libyal readers of E01, VHD/VHDX, VMDK, QCOW2, split raw,
  # NTFS and shadow copies, chosen over hand-written readers of those formats
  libewf-dev libvhdi-dev libvmdk-dev libqcow-dev libsmraw-dev libfsntfs-dev libvshadow-dev libbfio-dev
  # quorvex serve: the web server, and Node.js (with its npm) to build the page; Debian's
  # separate npm package conflicts with nodejs's own and is never installed. Chromium runs
  # the browser tests headless.
  libcpp-httplib-dev nodejs chromium
  # scripts, and the peer readers used by the differential test and the benchmark
  python3 libevtx-utils python3-evtx libevt-utils
  # disk image fixtures built at test time: mkntfs and libntfs-3g fill an NTFS volume,
  # sfdisk partitions it, ewfacquire and qemu-img convert it to the containers
  ntfs-3g ntfs-3g-dev fdisk ewf-tools qemu-utils
)

is_installed() {
  [[ "$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null)" == "install ok installed" ]]
}

missing=()
for pkg in "${PACKAGES[@]}"; do
  is_installed "$pkg" || missing+=("$pkg")
done

if [[ "${1:-}" == "--check" ]]; then
  if ((${#missing[@]})); then
    echo "setup: missing: ${missing[*]}"
    exit 1
  fi
  echo "setup: all ${#PACKAGES[@]} packages installed"
  exit 0
fi

if ((${#missing[@]} == 0)); then
  echo "setup: all ${#PACKAGES[@]} packages already installed"
  exit 0
fi

SUDO=()
if [[ "$(id -u)" != 0 ]]; then
  if ! command -v sudo >/dev/null; then
    echo "setup: not root and sudo is not available; install as root: ${missing[*]}" >&2
    exit 1
  fi
  SUDO=(sudo -n) # never prompt: CI has no stdin
fi

export DEBIAN_FRONTEND=noninteractive
APT_OPTS=(-o DPkg::Lock::Timeout=600 -o Dpkg::Use-Pty=0)

echo "setup: installing ${missing[*]}"
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "${APT_OPTS[@]}" -q update
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "${APT_OPTS[@]}" -q install -y \
  --no-install-recommends "${missing[@]}" </dev/null

still=()
for pkg in "${missing[@]}"; do
  is_installed "$pkg" || still+=("$pkg")
done
if ((${#still[@]})); then
  echo "setup: failed to install: ${still[*]}" >&2
  exit 1
fi
echo "setup: installed ${#missing[@]} package(s)"
