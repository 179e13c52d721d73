# Names, versions and folders for cross-building; sourced by the scripts here and read by
# cmake/mips-linux-gnu.cmake.
#
# The appliance's management process runs CPython 3.9 on 32-bit big-endian MIPS (o32). The scripts
# build that interpreter from Debian's source package with Debian's cross compiler and run it under
# user emulation. Both results lie outside the checkout, in folders named after a hash of what they
# are made from:
#   $interpreter   CPython with zlib and ctypes, and json-c
#   $environment   a virtual environment of it with the packages of requirements/mips-python.txt
triplet=mips-linux-gnu
sysroot=/usr/$triplet  # Debian's cross packages install the C library here

# Debian source packages and the release whose version is used: PACKAGE/RELEASE.
sources=(python3.9/bullseye json-c/bullseye zlib/bookworm libffi/bookworm)

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
cache=${XDG_CACHE_HOME:-$HOME/.cache}/modules-util-mips

key_of() { cat "$@" | sha256sum | cut -c1-12; }
interpreter=$cache/interpreter-$(cd "$here" && key_of ../../tools/apt-fetch config.sh \
    build-libraries build-cpython cpython.site build-launcher launcher.c)
environment=$cache/environment-$(
    key_of "$here/build-environment" "$root"/requirements/mips-{python,build}.txt - <<<"$interpreter"
)
mips_python=$environment/bin/python
