# Stands in for Buildroot around the recipe: what the recipe reads, and what Buildroot does with it. TARGET_DIR is the root
# file system; a goal's directory is that of the package's sources, $(@D) to the recipe.
SOURCE = $(patsubst %/,%,$(dir $(MAKECMDGOALS)))
BR2_EXTERNAL_KORVO_PATH = $(SOURCE)/packaging/buildroot
BR2_ENABLE_LTO = y
BR2_PACKAGE_KORVO_VARIANT_UTILS_TOOL = y
BR2_PACKAGE_KORVO_VARIANT_UTILS_FLASH_DIR = "/mnt/flash/korvo"
BR2_PACKAGE_KORVO_VARIANT_UTILS_DEFAULTS = "$(SOURCE)/examples/device/tmp/system.cfg"
INSTALL = install
SED = sed -i -e
qstrip = $(strip $(subst ",,$(1)))
include $(BR2_EXTERNAL_KORVO_PATH)/external.mk

define newline


endef
$(SOURCE)/version: ; @echo $(KORVO_VARIANT_UTILS_VERSION)
$(SOURCE)/options: ; @echo $(KORVO_VARIANT_UTILS_CONF_OPTS)
$(SOURCE)/hooks:
	test -f $(KORVO_VARIANT_UTILS_SITE)/CMakeLists.txt
	$(foreach hook,$(KORVO_VARIANT_UTILS_POST_INSTALL_TARGET_HOOKS),$(call $(hook))$(newline))
	$(KORVO_VARIANT_UTILS_INSTALL_INIT_SYSV)
	$(KORVO_VARIANT_UTILS_INSTALL_INIT_SYSTEMD)
