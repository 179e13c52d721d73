# What stands in for the appliance's processor on a workstation, and where it is kept. Sourced by the
# scripts here and asked by cmake/mips-linux-gnu.cmake.
#
# The management process of the appliance runs CPython 3.9 on 32-bit big-endian MIPS (o32). Here that
# interpreter is built from Debian's source package with Debian's cross compiler and runs under user
# emulation. Both results lie outside the checkout, in folders named after what they are made from:
#   $interpreter   CPython with zlib and ctypes, json-c beside it; anew when the recipe changes
#   $environment   a virtual environment of it with the framework, ujson and the test tools; anew when
#                  the interpreter or requirements.txt changes
triplet=mips-linux-gnu
sysroot=/usr/$triplet  # where Debian's cross packages keep the target's C library

# Debian source packages and the release whose version is taken: PACKAGE/RELEASE.
sources=(python3.9/bullseye json-c/bullseye zlib/bookworm libffi/bookworm)

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
cache=${XDG_CACHE_HOME:-$HOME/.cache}/modules-util-target

key_of() { cat "$@" | sha256sum | cut -c1-12; }
interpreter=$cache/interpreter-$(cd "$here" && key_of ../debian-sources config.sh libraries cpython cpython.site launcher launcher.c)
environment=$cache/environment-$(
    key_of "$here/packages" "$here/left-out.txt" "$root/requirements.txt" - <<<"$interpreter"
)
target_python=$environment/bin/python
