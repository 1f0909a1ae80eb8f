#!/usr/bin/env bash
# Installs the peer libraries the benchmarks compare against (Debian
# packages). The benchmarks build without them and then measure only qwvm.
#   LMDB (liblmdb-dev): bench/btree_bench.cpp, bench/box_bench.cpp, bench/commit_bench.cpp
#   LevelDB (libleveldb-dev): bench/log_bench.cpp, bench/box_bench.cpp
#   RocksDB (librocksdb-dev): bench/box_bench.cpp
set -euo pipefail
sudo=""
if [ "$(id -u)" != 0 ]; then sudo=sudo; fi
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq liblmdb-dev libleveldb-dev librocksdb-dev
