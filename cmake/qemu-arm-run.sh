#!/bin/sh
# Runs a 32-bit ARM program of this build on the build machine under qemu-user:
#
#   cmake/qemu-arm-run.sh <program> [arguments...]
#
# CMake and ctest run every target program through this script (it is the
# armhf toolchain's CMAKE_CROSSCOMPILING_EMULATOR). Without a binfmt_misc
# registration, which containers and CI machines rarely have, the kernel
# cannot start an ARM program itself, so two kinds of test would fail under a
# plain qemu-arm:
#
# - a program that starts itself again from argv[0] (GoogleTest's
#   "threadsafe" death tests do): the program is given as argv[0] a link,
#   "<program>.qemu-arm", that leads back to this script, so starting argv[0]
#   goes through qemu again;
# - a test that starts another program of the build (the ftpdisk command):
#   FTPDISK_TARGET_LAUNCHER names this script in the program's environment, and
#   such a test starts "$FTPDISK_TARGET_LAUNCHER <program> <arguments>" when it
#   is set.
#
# FTPDISK_QEMU_ARM and FTPDISK_ARMHF_SYSROOT choose another emulator or target
# C library (defaults: qemu-arm from PATH, /usr/arm-linux-gnueabihf), and
# FTPDISK_ARMHF_OPENSSL_DIR the armhf OpenSSL that scripts/install-deps.sh
# unpacks (default /opt/ftpdisk-armhf-openssl).
set -eu

case "$0" in
  *.qemu-arm)
    # Started again through a link made below: the program sits beside it.
    program=${0%.qemu-arm}
    launcher=$(readlink -f "$0")
    ;;
  *)
    if [ "$#" -lt 1 ]; then
      echo "usage: $0 <program> [arguments...]" >&2
      exit 2
    fi
    program=$1
    shift
    launcher=$(readlink -f "$0")
    ;;
esac

# The re-entry link is made once per program; "ln -s" without -f either
# creates it or fails because a parallel run already did, never leaving a
# moment without it.
reentry=${program}.qemu-arm
if [ ! -L "${reentry}" ]; then
  ln -s "${launcher}" "${reentry}" 2>/dev/null || true
fi
if [ -L "${reentry}" ]; then
  argv0=${reentry}
else
  # A read-only folder: no re-entry, everything else still works.
  argv0=${program}
fi

FTPDISK_TARGET_LAUNCHER=${launcher}
export FTPDISK_TARGET_LAUNCHER
# The guest's loader reads the build machine's /etc/ld.so.cache. Where Debian's
# own armhf libraries are installed as a second architecture (the packaging
# step needs them), that cache names /lib/arm-linux-gnueabihf, and a program
# would load that C library beside the sysroot's loader: two builds of one C
# library in a process, which crashes threaded programs. A library path in the
# guest's environment is searched before the cache; "/lib" there is the
# sysroot's own library folder. The armhf OpenSSL's folder comes after it: the
# module's libssl.so.3 and libcrypto.so.3 are found there whether or not a
# program's run path names it (qemu looks for a path below the sysroot first,
# then on the build machine, where this one is).
openssl_lib=${FTPDISK_ARMHF_OPENSSL_DIR:-/opt/ftpdisk-armhf-openssl}/usr/lib/arm-linux-gnueabihf
exec "${FTPDISK_QEMU_ARM:-qemu-arm}" -L "${FTPDISK_ARMHF_SYSROOT:-/usr/arm-linux-gnueabihf}" \
  -E LD_LIBRARY_PATH="/lib:${openssl_lib}" -0 "${argv0}" "${program}" "$@"
