# Shared set-up of scripts/test and scripts/demo: Debian packages, the
# panel's account, the build.

FERROW_PACKAGES=(
  build-essential cmake pkg-config
  libssh2-1-dev libssl-dev libxml2-dev libxslt1-dev liblog4cpp5-dev
  libboost-dev libboost-filesystem-dev
  libgtest-dev libgmock-dev
  util-linux mount passwd
  openssh-server openssh-client sudo iproute2
)

need_root() {
  if [ "$(id -u)" -ne 0 ]; then
    echo "$0: must run as root (it installs packages, creates the account" \
         "dyradm and uses private mount namespaces)" >&2
    exit 1
  fi
}

install_packages() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" ||
      missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "== installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

ensure_panel_account() {
  getent passwd dyradm >/dev/null ||
    useradd --system --no-create-home --shell /usr/sbin/nologin dyradm
}

# build DIR TARGET [cmake options...]; TARGET "all" builds everything.
build_ferrow() {
  local dir=$1 target=$2; shift 2
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j"$(nproc)" --target "$target"
}
