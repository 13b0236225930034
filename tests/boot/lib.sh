# Booting Debian bookworm under a real systemd for the boot tests (sourced).
#
#   boot_rootfs ARCH [PKGS]   -> prints the cached root file system tarball with PKGS (default BOOT_PACKAGES;
#                                built by mmdebstrap when missing or stale; another architecture than the
#                                host's needs qemu-user-static's binfmt handlers); returns 77 with a reason on
#                                standard error when it cannot
#   boot_start TARBALL DIR    -> unpacks it into DIR and boots it with systemd-nspawn; sets BOOT_INIT (the
#                                container's PID 1 as the host sees it) and waits for "running"
#   in_boot CMD...            -> runs a command inside the booted system (all its namespaces), as root
#   boot_stop                 -> powers it off, removes DIR and the cgroup
#
# The root file system is a tarball made by `mmdebstrap --variant=apt`, cached outside the source tree
# (TARNWICK_BOOT_CACHE, default /var/cache/tarnwickrelay-boot) under a name keyed by everything that goes into
# it; a tarball older than TARNWICK_BOOT_CACHE_DAYS (default 7) is made anew, so security updates come in. The
# mirror is the one the host's apt is configured with (read at run time from `apt-get indextargets`).
#
# The container: `systemd-nspawn -b --register=no --keep-unit --private-network --system-call-filter=bpf`,
# with the unified cgroup hierarchy (SYSTEMD_NSPAWN_UNIFIED_HIERARCHY=1, cgroup v2 as on the board), started
# from a cgroup v2 group of its own so that the container's systemd gets a delegated tree.

BOOT_SUITE=bookworm
# Everything the tests use inside: systemd as init, both iptables back ends, the package's run-time
# dependencies (so `apt-get install ./x.deb` needs no network: the container has none), a compiler and
# pkg-config for the client library's example, Python for the Python module.
BOOT_PACKAGES=systemd,systemd-sysv,dbus,iptables,libcjson1,libncursesw6,g++,make,pkg-config,python3,iproute2,procps
BOOT_LIB_VERSION=1   # raise when what goes into the tarball changes in a way the key does not show
BOOT_CACHE=${TARNWICK_BOOT_CACHE:-/var/cache/tarnwickrelay-boot}
# A root file system with a kernel (booted by qemu-system) gets a small initrd: the virtio disk and ext4 only,
# instead of most of the kernel's modules, which under qemu-user take mkinitramfs a quarter of an hour.
BOOT_INITRAMFS_HOOK='mkdir -p "$1/etc/initramfs-tools/conf.d" "$1/etc/initramfs-tools/hooks" &&
  echo MODULES=list > "$1/etc/initramfs-tools/conf.d/tarnwick-boot.conf" &&
  printf "#!/bin/sh\n[ \"\$1\" = prereqs ] && exit 0\n. /usr/share/initramfs-tools/hook-functions\nmanual_add_modules virtio_blk virtio_pci virtio_mmio ext4\n" > "$1/etc/initramfs-tools/hooks/tarnwick-boot" &&
  chmod 755 "$1/etc/initramfs-tools/hooks/tarnwick-boot"'

boot_log() { echo "[boot $(date +%T)] $*" >&2; }

# One-line sources for the Debian suites of the host's apt configuration (main only), for ARCH.
boot_sources() {
  local arch=$1
  apt-get indextargets --no-release-info --format '$(REPO_URI) $(RELEASE) $(COMPONENT) $(IDENTIFIER)' 2>/dev/null |
    awk -v suite="$BOOT_SUITE" -v arch="$arch" \
      '$4 == "Packages" && $3 == "main" && ($2 == suite || $2 == suite "-updates" || $2 == suite "-security") {
         print "deb [arch=" arch "] " $1 " " $2 " main" }' | sort -u
}

boot_rootfs() {
  local arch=$1
  local packages=${2:-$BOOT_PACKAGES}
  local key tarball sources age
  local hooks=()
  case ,$packages, in *,linux-image-*) hooks=(--essential-hook="$BOOT_INITRAMFS_HOOK") ;; esac
  key=$(printf '%s\n' "$BOOT_SUITE" "$arch" apt "$packages" "$BOOT_LIB_VERSION" "${hooks[@]}" | sha256sum | cut -c1-16)
  tarball=$BOOT_CACHE/$BOOT_SUITE-$arch-$key.tar
  mkdir -p "$BOOT_CACHE"
  exec {lock}>"$BOOT_CACHE/lock"
  flock "$lock"
  if [ -s "$tarball" ]; then
    age=$(( ($(date +%s) - $(stat -c %Y "$tarball")) / 86400 ))
    if [ "$age" -lt "${TARNWICK_BOOT_CACHE_DAYS:-7}" ]; then
      flock -u "$lock"
      echo "$tarball"
      return 0
    fi
    boot_log "the cached root file system is $age days old: made anew"
  fi
  local qemu_arch=
  case $arch in arm64) qemu_arch=aarch64 ;; armhf) qemu_arch=arm ;; esac
  if [ "$arch" != "$(dpkg --print-architecture)" ] && ! grep -qsx enabled "/proc/sys/fs/binfmt_misc/qemu-$qemu_arch"; then
    flock -u "$lock"
    echo "no binfmt handler for $arch programs (mmdebstrap runs the packages' scripts through it): scripts/setup.sh board" >&2
    return 77
  fi
  sources=$(boot_sources "$arch")
  if [ -z "$sources" ]; then
    flock -u "$lock"
    echo "no Debian $BOOT_SUITE mirror in the host's apt configuration" >&2
    return 77
  fi
  # Is the mirror there? An index update into a scratch directory says so in a second or two.
  local probe
  probe=$(mktemp -d)
  mkdir -p "$probe/lists/partial" "$probe/cache/archives/partial"
  printf '%s\n' "$sources" > "$probe/sources.list"
  if ! timeout 120 apt-get -qq -o Dir::Etc::SourceList="$probe/sources.list" -o Dir::Etc::SourceParts=/dev/null \
         -o Dir::State::Lists="$probe/lists" -o Dir::Cache="$probe/cache" -o Debug::NoLocking=1 \
         -o APT::Sandbox::User=root -o APT::Architectures="$arch" -o APT::Update::Error-Mode=any update >/dev/null 2>&1; then
    rm -rf "$probe"
    flock -u "$lock"
    echo "the Debian mirror of the host's apt configuration cannot be reached" >&2
    return 77
  fi
  boot_log "making the $arch root file system with mmdebstrap (cached in $BOOT_CACHE)"
  local started=$SECONDS
  if ! mmdebstrap --quiet --variant=apt --format=tar --architectures="$arch" --include="$packages" "${hooks[@]}" \
         "$BOOT_SUITE" "$tarball.new" "$probe/sources.list" >"$probe/mmdebstrap.log" 2>&1; then
    cat "$probe/mmdebstrap.log" >&2
    rm -rf "$probe" "$tarball.new"
    flock -u "$lock"
    echo "mmdebstrap failed" >&2
    return 1
  fi
  rm -rf "$probe"
  find "$BOOT_CACHE" -name "$BOOT_SUITE-$arch-*.tar" -mtime +"${TARNWICK_BOOT_CACHE_DAYS:-7}" -delete   # stale keys
  mv "$tarball.new" "$tarball"
  boot_log "root file system made in $((SECONDS - started)) s: $tarball"
  flock -u "$lock"
  echo "$tarball"
}

# The cgroup v2 hierarchy: the whole of /sys/fs/cgroup, or its "unified" part on a hybrid host.
boot_cgroup_root() {
  if [ "$(stat -f -c %T /sys/fs/cgroup 2>/dev/null)" = cgroup2fs ]; then
    echo /sys/fs/cgroup
  elif [ "$(stat -f -c %T /sys/fs/cgroup/unified 2>/dev/null)" = cgroup2fs ]; then
    echo /sys/fs/cgroup/unified
  else
    return 1
  fi
}

# Can this machine boot a container at all? Prints the reason when not.
boot_possible() {
  [ "$(id -u)" -eq 0 ] || { echo "needs root (systemd-nspawn)"; return 1; }
  command -v systemd-nspawn >/dev/null || { echo "systemd-nspawn missing: scripts/setup.sh boot installs it"; return 1; }
  command -v mmdebstrap >/dev/null || { echo "mmdebstrap missing: scripts/setup.sh boot installs it"; return 1; }
  boot_cgroup_root >/dev/null || { echo "no cgroup v2 hierarchy on this host"; return 1; }
  return 0
}

boot_start() {
  local tarball=$1
  BOOT_DIR=$2
  BOOT_NAME=tarnwick-boot-$$
  local cgroot
  cgroot=$(boot_cgroup_root)
  BOOT_CGROUP=$cgroot/$BOOT_NAME
  mkdir -p "$BOOT_DIR/root"
  local started=$SECONDS
  tar -C "$BOOT_DIR/root" -xf "$tarball"
  # The mirror's lists are not needed inside, and the container has no network anyway.
  rm -f "$BOOT_DIR/root/etc/apt/sources.list.d/"* "$BOOT_DIR/root/etc/apt/sources.list"
  mkdir -p "$BOOT_CGROUP"
  # shellcheck disable=SC2016
  SYSTEMD_NSPAWN_UNIFIED_HIERARCHY=1 setsid sh -c 'echo $$ > "$1/cgroup.procs" && shift &&
      exec systemd-nspawn --quiet -D "$@"' sh "$BOOT_CGROUP" "$BOOT_DIR/root" -b --register=no --keep-unit \
      --private-network --system-call-filter=bpf --machine="$BOOT_NAME" </dev/null >"$BOOT_DIR/console.log" 2>&1 &
  BOOT_NSPAWN=$!
  BOOT_INIT=
  local state=
  for _ in $(seq 600); do
    if [ -z "$BOOT_INIT" ]; then
      BOOT_INIT=$(pgrep -P "$BOOT_NSPAWN" | head -1 || true)
    else
      state=$(in_boot systemctl is-system-running 2>/dev/null || true)
      case $state in running|degraded) break ;; esac
    fi
    kill -0 "$BOOT_NSPAWN" 2>/dev/null || break
    sleep 0.2
  done
  case $state in
    running) boot_log "booted ($((SECONDS - started)) s with unpacking): systemd $(in_boot systemctl --version | head -1 | cut -d' ' -f2)" ;;
    degraded) boot_log "booted, degraded: $(in_boot systemctl --failed --no-legend --plain | tr '\n' ' ')" ;;
    *) boot_log "the container did not boot (state '${state:-none}'):"; tail -30 "$BOOT_DIR/console.log" >&2; return 1 ;;
  esac
}

in_boot() {
  nsenter --target "$BOOT_INIT" --all env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    LANG=C.UTF-8 HOME=/root "$@"
}

boot_stop() {
  [ -n "${BOOT_NSPAWN:-}" ] || return 0
  if kill -0 "$BOOT_NSPAWN" 2>/dev/null; then
    # nspawn asks the container's systemd to halt on SIGTERM; a container that does not stop is killed.
    kill -TERM "$BOOT_NSPAWN" 2>/dev/null || true
    for _ in $(seq 150); do kill -0 "$BOOT_NSPAWN" 2>/dev/null || break; sleep 0.2; done
    kill -KILL "$BOOT_NSPAWN" 2>/dev/null || true
  fi
  wait "$BOOT_NSPAWN" 2>/dev/null || true
  if [ -d "${BOOT_CGROUP:-}" ]; then
    # Leftover processes of the container's tree, then its groups, deepest first.
    for _ in $(seq 50); do
      find "$BOOT_CGROUP" -name cgroup.procs -exec cat {} + 2>/dev/null | xargs -r kill -KILL 2>/dev/null || true
      find "$BOOT_CGROUP" -depth -type d -exec rmdir {} + 2>/dev/null || true
      [ -d "$BOOT_CGROUP" ] || break
      sleep 0.1
    done
  fi
  [ -n "${BOOT_DIR:-}" ] && rm -rf "$BOOT_DIR/root"
  BOOT_NSPAWN=
}
