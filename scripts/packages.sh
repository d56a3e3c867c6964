# Debian packages, by what they are needed for. Sourced by the commands.
# shellcheck shell=bash disable=SC2034
build_packages=(g++ cmake ninja-build pkg-config libsqlite3-dev libcli11-dev libfmt-dev
  nlohmann-json3-dev libavformat-dev libavcodec-dev libavutil-dev libssl-dev libzstd-dev libmicrohttpd-dev libarchive-dev
  libfuse3-dev libewf-dev)
# 32-bit ARM: built here and run through QEMU.
arm_packages=(g++-arm-linux-gnueabihf qemu-user googletest)
# The emulated board.
board_packages=(qemu-system-arm cpio kmod mtools)
run_packages=(bubblewrap fuse3)
# A server of cameras.
camera_packages=(gir1.2-gst-rtsp-server-1.0 python3-gi gstreamer1.0-plugins-base
  gstreamer1.0-plugins-good gstreamer1.0-plugins-bad)
demo_packages=(python3-imageio ffmpeg dosfstools "${camera_packages[@]}")
test_packages=(libgtest-dev libgmock-dev dosfstools mtools sleuthkit ffmpeg sqlite3 strace util-linux
  file man-db dpkg-dev lintian systemd procps doxygen abigail-tools python3-cryptography rclone zstd
  softhsm2 libengine-pkcs11-openssl zsh fish unzip "${camera_packages[@]}")
# A browser, for the tests of the page; where there is none they are skipped.
browser_packages=(chromium chromium-driver python3-selenium)
# Others, for tests/page/others alone.
other_browser_packages=(firefox-esr webkit2gtk-driver gstreamer1.0-libav gstreamer1.0-plugins-bad xvfb)
# A player, for one test of sealed files; where there is none it is skipped.
player_packages=(vlc-bin vlc-plugin-base)
bench_packages=(libbenchmark-dev nbdkit libnbd-bin util-linux python3-imageio ffmpeg)
lint_packages=(shellcheck clang-14 clang-tidy-14 git)
# The build with the address sanitizer is clang's.
sanitizer_packages=(clang-14 libclang-rt-14-dev)
fuzz_packages=("${sanitizer_packages[@]}" llvm-14)
