# Shared set-up of scripts/test and scripts/demo: Debian packages, the
# panel's account, the build.

FERROW_PACKAGES=(
  build-essential cmake pkg-config
  libssh2-1-dev libssl-dev libxml2-dev libxslt1-dev liblog4cpp5-dev
  libboost-dev libboost-filesystem-dev
  libgtest-dev libgmock-dev
  util-linux mount passwd
  openssh-server openssh-client sudo iproute2
  perl tar diffutils time
  valgrind
  bsdutils man-db groff-base bash-completion dpkg-dev binutils
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

# A TCP port on 127.0.0.1 that was free a moment ago.
free_local_port() {
  perl -MIO::Socket::INET -e \
    'print IO::Socket::INET->new(Listen => 1, LocalAddr => "127.0.0.1",
                                 LocalPort => 0, ReuseAddr => 1)->sockport'
}

# A password with a blank and shell characters, to catch quoting faults.
random_password() {
  echo "Demo $(od -An -tx1 -N6 /dev/urandom | tr -d ' \n') #\$x 'q'"
}

# make_login_account NAME PASSWORD root|sudo: a login for a throwaway sshd.
# "root" makes a second name for uid 0, "sudo" a member of group sudo (sudo
# then asks for its password). An existing account keeps its entry and gets
# the password. Root's own entry is never touched.
make_login_account() {
  local name=$1 password=$2 kind=$3
  if ! getent passwd "$name" >/dev/null; then
    case $kind in
      root) useradd -m -d "/home/$name" -s /bin/sh -o -u 0 -g 0 "$name" ;;
      sudo) useradd -m -d "/home/$name" -s /bin/sh -G sudo "$name" ;;
      *) echo "make_login_account: unknown kind $kind" >&2; return 1 ;;
    esac
  fi
  printf '%s:%s\n' "$name" "$password" | chpasswd
}

# Removes an account made by make_login_account, with its home directory.
# -f because a second name for uid 0 always "has running processes".
remove_login_account() {
  local name=$1
  [ "$name" != root ] || return 1
  getent passwd "$name" >/dev/null || return 0
  userdel -f -r "$name" 2>/dev/null || userdel -f "$name"
}

# start_sshd DIR: an sshd on 127.0.0.1 for password and keyboard-interactive
# logins (through PAM; root logins allowed), with its configuration, host
# key and log in DIR. Sets SSHD_PORT and SSHD_PID; stop it with stop_sshd.
start_sshd() {
  local dir=$1
  mkdir -p /run/sshd "$dir"
  ssh-keygen -q -t ed25519 -N '' -f "$dir/host_ed25519_key" </dev/null
  for _ in 1 2 3 4 5; do
    SSHD_PORT=$(free_local_port)
    cat >"$dir/sshd_config" <<CONFIG
ListenAddress 127.0.0.1
Port $SSHD_PORT
HostKey $dir/host_ed25519_key
PidFile $dir/sshd.pid
UsePAM yes
PasswordAuthentication yes
KbdInteractiveAuthentication yes
PubkeyAuthentication no
PermitRootLogin yes
StrictModes no
UseDNS no
LogLevel VERBOSE
MaxStartups 100
MaxSessions 100
PrintMotd no
CONFIG
    /usr/sbin/sshd -D -e -f "$dir/sshd_config" -E "$dir/sshd.log" \
      </dev/null >/dev/null 2>&1 &
    SSHD_PID=$!
    for _ in $(seq 50); do
      kill -0 "$SSHD_PID" 2>/dev/null || break
      [ "$(sshd_banner "$SSHD_PORT")" = SSH- ] && return 0
      sleep 0.1
    done
    stop_sshd  # most likely it lost the port to another program
  done
  echo "sshd did not start; its log:" >&2
  cat "$dir/sshd.log" >&2 || true
  return 1
}

# The first four bytes a server on 127.0.0.1:PORT sends within two seconds.
sshd_banner() {
  timeout 2 bash -c 'exec 3<>"/dev/tcp/127.0.0.1/$1" && head -c 4 <&3' \
    _ "$1" 2>/dev/null || true
}

stop_sshd() {
  [ -n "${SSHD_PID:-}" ] || return 0
  kill "$SSHD_PID" 2>/dev/null || true
  wait "$SSHD_PID" 2>/dev/null || true
  SSHD_PID=
}
