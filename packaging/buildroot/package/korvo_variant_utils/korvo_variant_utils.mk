################################################################################
#
# korvo_variant_utils
#
################################################################################

KORVO_VARIANT_UTILS_VERSION = 1.0.0
KORVO_VARIANT_UTILS_SITE = $(BR2_EXTERNAL_KORVO_PATH)/../..
KORVO_VARIANT_UTILS_SITE_METHOD = local
# Leave out the project's own builds.
KORVO_VARIANT_UTILS_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude=/build
KORVO_VARIANT_UTILS_LICENSE = MIT
KORVO_VARIANT_UTILS_LICENSE_FILES = LICENSE
KORVO_VARIANT_UTILS_INSTALL_STAGING = YES
KORVO_VARIANT_UTILS_SUPPORTS_IN_SOURCE_BUILD = NO
KORVO_VARIANT_UTILS_FLASH_DIR = $(call qstrip,$(BR2_PACKAGE_KORVO_VARIANT_UTILS_FLASH_DIR))
KORVO_VARIANT_UTILS_DEFAULTS = $(call qstrip,$(BR2_PACKAGE_KORVO_VARIANT_UTILS_DEFAULTS))

# BR2_SSP_*, BR2_RELRO_* and BR2_FORTIFY_SOURCE_* choose the hardening;
# CMake cannot see the flags, since the compiler's wrapper adds them.
KORVO_VARIANT_UTILS_CONF_OPTS = \
	-DKORVO_HARDENING=OFF \
	-DKORVO_FLASH_DIR=$(KORVO_VARIANT_UTILS_FLASH_DIR) \
	-DKORVO_BUILD_TOOLS=$(if $(BR2_PACKAGE_KORVO_VARIANT_UTILS_TOOL),ON,OFF) \
	-DCMAKE_INTERPROCEDURAL_OPTIMIZATION=$(if $(BR2_ENABLE_LTO),ON,OFF)

ifneq ($(KORVO_VARIANT_UTILS_DEFAULTS),)
define KORVO_VARIANT_UTILS_INSTALL_DEFAULTS
	$(INSTALL) -D -m 0644 $(KORVO_VARIANT_UTILS_DEFAULTS) \
		$(TARGET_DIR)/etc/korvo/defaults.cfg
endef
KORVO_VARIANT_UTILS_POST_INSTALL_TARGET_HOOKS += KORVO_VARIANT_UTILS_INSTALL_DEFAULTS
endif

ifeq ($(BR2_PACKAGE_KORVO_VARIANT_UTILS_TOOL),y)
define KORVO_VARIANT_UTILS_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/examples/boot/S05korvo-config \
		$(TARGET_DIR)/etc/init.d/S05korvo-config
endef

define KORVO_VARIANT_UTILS_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(@D)/examples/boot/korvo-config.service \
		$(TARGET_DIR)/usr/lib/systemd/system/korvo-config.service
	$(SED) 's,/var/lib/korvo$$,$(KORVO_VARIANT_UTILS_FLASH_DIR),' \
		$(TARGET_DIR)/usr/lib/systemd/system/korvo-config.service
endef
endif

$(eval $(cmake-package))
