################################################################################
#
# kiv
#
################################################################################

# A tag or commit of your kiv repository; for a checkout of your own during development,
# KIV_OVERRIDE_SRCDIR = /path/to/kiv in local.mk.
KIV_VERSION = main
KIV_SITE = https://git.example.com/kiv.git
KIV_SITE_METHOD = git
# Set to kiv's licence as your copy states it.
KIV_LICENSE = Proprietary

# kiv_plugin.h goes to staging too, for the package of a platform plug-in.
KIV_INSTALL_STAGING = YES

# Only what the device runs: the host tools, tests, benchmarks and example plug-ins stay
# out, and with them GoogleTest, FUSE and OpenSSL.
KIV_CONF_OPTS = \
	-DKIV_BUILD_TESTS=OFF \
	-DKIV_BUILD_TOOLS=OFF \
	-DKIV_BUILD_BENCH=OFF \
	-DKIV_BUILD_EXAMPLES=OFF

$(eval $(cmake-package))
