# kiv: the software-upgrade utility of the device, as a Yocto/OpenEmbedded recipe.
# Copy it into a layer of yours (recipes-support/kiv/kiv_git.bb) and point KIV_GIT_URI
# and SRCREV at your kiv repository, here or in a kiv_git.bbappend.

SUMMARY = "Software upgrade of A/B partition sets on NOR flash"
DESCRIPTION = "kiv installs release images into the partition sets of an MTD device, \
verifies them by CRC-32 and drives their upgrade state (VALID, TEST, BOOT) across reboots."
# Set both to kiv's licence as your copy states it.
LICENSE = "CLOSED"

KIV_GIT_URI ?= "git://git.example.com/kiv.git;protocol=https;branch=main"
SRC_URI = "${KIV_GIT_URI}"
SRCREV ?= "${AUTOREV}"
PV = "0.1+git${SRCPV}"
S = "${WORKDIR}/git"

# The build needs CMake 3.24 or later (link groups) and a C++20 compiler (GCC 12 is the
# one kiv is tested with).
inherit cmake bash-completion

# Only what the device runs: the host tools (flash simulator, sandbox, image builder),
# the tests, the benchmarks and the example plug-ins stay out, and with them GoogleTest,
# FUSE and OpenSSL.
EXTRA_OECMAKE = "-DKIV_BUILD_TESTS=OFF -DKIV_BUILD_TOOLS=OFF -DKIV_BUILD_BENCH=OFF -DKIV_BUILD_EXAMPLES=OFF"

# kiv: the binary, which needs only libc at run time (libstdc++ is linked in).
# kiv-dev: include/kiv_plugin.h, for the recipe of a platform plug-in.
# kiv-doc: the man pages, copyright and changelog; kiv-bash-completion: the completion
# (bash-completion class).
FILES:${PN} = "${bindir}/kiv"
