# The emulated board: our 32-bit ARM build under a real kernel, with an SD card. For scripts, which
# stand in the source folder, have read scripts/packages.sh, and set
#   build_dir work   folders of the build and of the board's files
#   guest            folder of the kernel's and busybox's packages, for any number of boards
#   card             the card's image
#   board_options    (cmake_option...) of the build
#   board_programs   (target...) that the board gets beside what is installed
# and have a function fail TEXT, which ends them. They own the processes that boot started.
# shellcheck shell=bash disable=SC2154

boots=0
board_machine=()  # more options of the emulator

build_board() {
  scripts/install-packages "${build_packages[@]}" "${arm_packages[@]}" "${board_packages[@]}"
  cmake --preset armhf -B "$build_dir" "${board_options[@]}" >"$work/build.log"
  cmake --build "$build_dir" -j "$(nproc)" --target tarn tarn-server dbsetup "${board_programs[@]}" \
    >>"$work/build.log" || { cat "$work/build.log"; exit 1; }
  scripts/unpack-armhf "$guest" @linux-image-armmp busybox-static
}

# What the board starts from: our build, Debian's libraries, busybox, and a few kernel modules.
make_initramfs() {
  local root=$work/root version component library module program
  rm -rf "$root"
  mkdir -p "$root"/{bin,sbin,dev,lib,mnt,proc,sys,tmp,usr/bin,usr/sbin,usr/local/bin}
  cp "$guest/bin/busybox" "$root/bin/"
  for component in library recorder tools server; do
    DESTDIR=$root cmake --install "$build_dir" --prefix /usr/local --strip --component $component >/dev/null
  done
  for program in "${board_programs[@]}"; do
    arm-linux-gnueabihf-strip -o "$root/usr/local/bin/$program" "$build_dir/bin/$program"
  done
  for library in ld-linux-armhf.so.3 libc.so.6 libm.so.6 libgcc_s.so.1 libstdc++.so.6; do
    cp -L "$(arm-linux-gnueabihf-g++ -print-file-name=$library)" "$root/lib/"
  done
  for library in libsqlite3.so.0 libfmt.so.9; do
    cp -L "build/armhf-sysroot/usr/lib/arm-linux-gnueabihf/$library" "$root/lib/"
  done
  # One place for all libraries, so that the programs share them.
  mv "$root"/usr/local/lib/arm-linux-gnueabihf/libTarn*.so.* "$root/lib/"
  cp tests/board/init "$root/init"

  version=$(ls "$guest/lib/modules")
  /sbin/depmod -b "$guest" "$version"
  for module in sdhci-pci nls_ascii nls_cp437 vfat; do
    /sbin/modprobe --show-depends -d "$guest" -S "$version" $module
  done | awk '$1 == "insmod" && !seen[$2]++ { print $2 }' >"$work/modules"
  xargs cp -t "$root/lib" <"$work/modules"
  sed 's|.*/|/lib/|' "$work/modules" >"$root/modules"
  (cd "$root" && find . | cpio -o -H newc --quiet) | gzip -1 >"$work/initramfs.gz"
  kernel=$(echo "$guest"/boot/vmlinuz-*)
}

# boot WORDS [DRIVE-OPTIONS]: starts the board in the background; its console goes to $log.
#
# The card's image is a file of this machine, which stays up: what the emulated card took in is kept
# when the board is killed, whatever the cache mode. So this card loses nothing that reached it, in
# the order in which it arrived, down to the 512-byte block; what the board had in memory is lost.
boot() {
  log=$work/console.$((++boots))
  : >"$log"
  qemu-system-arm -M virt,highmem=off -cpu cortex-a15 -m 512 -net none -no-reboot \
    -display none -monitor none -serial "file:$log" -kernel "$kernel" -initrd "$work/initramfs.gz" \
    -append "console=ttyAMA0 quiet panic=-1 rdinit=/init $1" \
    -drive "if=none,id=card,file=$card,format=raw,cache=writeback${2:+,$2}" \
    -device sdhci-pci -device sd-card,drive=card "${board_machine[@]}" >"$work/qemu.log" 2>&1 &
  board=$!
}
trap '[ -z "${board:-}" ] || kill -9 "$board" 2>/dev/null || true' EXIT

# await PATTERN SECONDS: the console shows a line, or the board has ended without it.
await() {
  local until=$((SECONDS + $2))
  until grep -aqE "$1" "$log"; do
    if grep -aq '^BOARD wrong' "$log"; then sleep 1; fail "$(grep -a '^BOARD wrong' "$log" | sed -n 1,3p)"; fi
    kill -0 "$board" 2>/dev/null || { cat "$work/qemu.log"; fail "the board ended before $1"; }
    [ $SECONDS -lt $until ] || { kill -9 "$board"; fail "no $1 within $2 s"; }
    sleep 0.05
  done
}

# The board ends in order.
await_end() {
  await '^BOARD end' "$1"
  wait "$board" 2>/dev/null || true
  board=''
  grep -aq '^BOARD end 0' "$log" || fail "the board ended with a failure"
}

# Lines that came whole, with a carriage return at their end; the board may be killed within one.
told() { sed -n "s/^BOARD $1\\r\$/$2/p" "$log"; }
