#!/bin/sh
# Checks the build and test dependencies (Debian packages); installs the
# missing ones when run as root with apt-get, else names them and fails.
set -eu

missing=""
need() {  # need PACKAGE TEST...
    package=$1; shift
    if ! "$@" >/dev/null 2>&1; then
        missing="$missing $package"
    fi
}

need cmake            command -v cmake
need make             command -v make
need g++              command -v g++
need gcc              command -v gcc
need libgtest-dev     test -f /usr/include/gtest/gtest.h
need libbenchmark-dev test -f /usr/include/benchmark/benchmark.h
need pv               command -v pv
need psmisc           command -v killall
need util-linux       command -v unshare
# The tmpfiles.d entry is checked with systemd-tmpfiles.
need systemd          command -v systemd-tmpfiles
# The command-line tool's tests check its SVG charts with xmllint.
need libxml2-utils    command -v xmllint
# Real servers and clients that the preload library's tests and benchmark run.
need rsync            command -v rsync
need vsftpd           test -x /usr/sbin/vsftpd
need openssh-server   test -x /usr/sbin/sshd
need openssh-client   command -v sftp
need curl             command -v curl
need trickle          command -v trickle
need python3          command -v python3
# The fuzz targets (make fuzz): clang, its libFuzzer runtime, and the
# symbolizer for readable crash reports.
need clang            command -v clang
need libclang-rt-14-dev sh -c 'test -f "$(clang --print-runtime-dir)/libclang_rt.fuzzer-x86_64.a"'
need llvm             command -v llvm-symbolizer

[ -z "$missing" ] && exit 0

if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
    echo "installing:$missing"
    apt-get update -qq
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $missing
else
    echo "missing Debian packages:$missing" >&2
    echo "install them with: sudo apt-get install$missing" >&2
    exit 1
fi
