#!/bin/sh
# Rebuilds the committed seed corpora (fuzz/corpus/<target>) from the working corpora of
# `make fuzz`: a coverage-preserving merge, then the 40 largest-coverage inputs kept.
set -e
for t in build/fuzz/fuzz/fuzz_*; do
  name=$(basename "$t" | sed 's/^fuzz_//')
  rm -rf "build/fuzz/merged/$name" && mkdir -p "build/fuzz/merged/$name" "fuzz/corpus/$name"
  "$t" -merge=1 "build/fuzz/merged/$name" "build/fuzz/corpus/$name" >/dev/null 2>&1
  rm -f "fuzz/corpus/$name"/*
  ls -S "build/fuzz/merged/$name" | head -40 | while read -r f; do cp "build/fuzz/merged/$name/$f" "fuzz/corpus/$name/"; done
  echo "$name: $(ls "fuzz/corpus/$name" | wc -l) seeds"
done
