################################################################################
#
# netwarden
#
################################################################################

NETWARDEN_VERSION = 0.2.0
NETWARDEN_SOURCE = netwarden-$(NETWARDEN_VERSION).tar.gz
NETWARDEN_SITE = $(call qstrip,$(BR2_PACKAGE_NETWARDEN_ARCHIVES))
NETWARDEN_SITE_METHOD = file
# None has been given yet: the owner has to choose one before anybody else may distribute it.
NETWARDEN_LICENSE = none given
NETWARDEN_REDISTRIBUTE = NO
NETWARDEN_INSTALL_STAGING = YES
NETWARDEN_DEPENDENCIES = host-pkgconf jansson mosquitto openssl util-linux

# SIGUSR1 of the processor family, with which the DHCP client renews its lease.
NETWARDEN_CONF_OPTS = \
	-DCMAKE_BUILD_TYPE=MinSizeRel \
	-DBUILD_TESTING=OFF \
	-DNETWARDEN_DHCP_RENEW_SIGNAL=$(if $(filter mips%,$(BR2_ARCH)),16,10) \
	-DNETWARDEN_HASH=$(call qstrip,$(BR2_PACKAGE_NETWARDEN_HASH)) \
	-DNETWARDEN_BUILD_MACHINE=buildroot

ifeq ($(BR2_PACKAGE_NETWARDEN_CLIENT),y)
NETWARDEN_DEPENDENCIES += cli11
else
NETWARDEN_CONF_OPTS += -DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON
endif

# The library for the robot's other processes, and nothing else.
define NETWARDEN_INSTALL_STAGING_CMDS
	$(TARGET_MAKE_ENV) DESTDIR=$(STAGING_DIR) $(HOST_DIR)/bin/cmake --install $(NETWARDEN_BUILDDIR) --component tarn
endef

ifeq ($(BR2_PACKAGE_NETWARDEN_BOARD),y)
define NETWARDEN_INSTALL_BOARD
	sh $(@D)/board/install.sh $(TARGET_DIR)
endef
NETWARDEN_POST_INSTALL_TARGET_HOOKS += NETWARDEN_INSTALL_BOARD
# After busybox and mosquitto, whose interfaces and mosquitto.conf these replace.
NETWARDEN_DEPENDENCIES += busybox
define NETWARDEN_PERMISSIONS
	/etc/sudoers.d/netwarden f 440 0 0 - - - - -
endef
endif

define NETWARDEN_INSTALL_STORE
	mkdir -p $(TARGET_DIR)/opt/halvik/persistent/opt/halvik/data/kvs
endef
NETWARDEN_POST_INSTALL_TARGET_HOOKS += NETWARDEN_INSTALL_STORE

# The supplicant's control socket is given to this group.
define NETWARDEN_USERS
	- - apps -1 - - - - Robot processes
endef

define NETWARDEN_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 755 $(NETWARDEN_PKGDIR)/S60netwarden $(TARGET_DIR)/etc/init.d/S60netwarden
endef

$(eval $(cmake-package))
