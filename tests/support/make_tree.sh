#!/usr/bin/env bash
# Makes a folder "tree" with files for a file system: text, noise, an empty one, one with holes; and "sums", theirs.
set -euo pipefail

mkdir -p tree/deep/er
cp -- "${TESSEL_SOURCE_DIR:?}"/CMakeLists.txt "$TESSEL_SOURCE_DIR"/include/tessel/*.h tree/deep
head -c 3000001 /dev/zero | openssl enc -aes-128-ctr -K "$(printf %032x 11)" -iv "$(printf %032x 0)" >tree/deep/er/noise
seq 1 300000 >tree/numbers
: >tree/empty
truncate -s 5M tree/holes
(cd tree && find . -type f -exec sha256sum {} +) >sums
