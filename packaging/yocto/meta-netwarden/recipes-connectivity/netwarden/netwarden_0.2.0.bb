SUMMARY = "Connectivity daemon of a home robot"
DESCRIPTION = "Joins the robot to its home network through wpa_supplicant, keeps it there, and tells the robot's other \
processes about it on the local broker."
SECTION = "net"

# No licence has been given for netwarden yet: its owner has to choose one before anybody else may distribute it.
LICENSE = "CLOSED"

# What packaging/archive makes, laid into files/ beside this recipe.
SRC_URI = "file://netwarden-${PV}.tar.gz"
S = "${@d.getVar('UNPACKDIR') or d.getVar('WORKDIR')}/netwarden-${PV}"

DEPENDS = "jansson mosquitto openssl util-linux-libuuid cli11"

inherit cmake pkgconfig systemd useradd

# What `netwarden -v` tells of an archive, which knows no git; set NETWARDEN_HASH in local.conf or a .bbappend.
NETWARDEN_HASH ?= "unknown"
# SIGUSR1 of the processor family, with which the DHCP client renews its lease.
NETWARDEN_RENEW_SIGNAL = "10"
NETWARDEN_RENEW_SIGNAL:mips = "16"
NETWARDEN_RENEW_SIGNAL:mipsel = "16"
NETWARDEN_RENEW_SIGNAL:mips64 = "16"
NETWARDEN_RENEW_SIGNAL:mips64el = "16"

EXTRA_OECMAKE = " \
    -DCMAKE_BUILD_TYPE=MinSizeRel \
    -DBUILD_TESTING=OFF \
    -DNETWARDEN_DHCP_RENEW_SIGNAL=${NETWARDEN_RENEW_SIGNAL} \
    -DNETWARDEN_HASH=${NETWARDEN_HASH} \
    -DNETWARDEN_BUILD_MACHINE=yocto \
    -DNETWARDEN_BUILDER=${DISTRO} \
"

SYSTEMD_SERVICE:${PN} = "netwarden.service"
# It takes over wlan0: enabled where the image says so.
SYSTEMD_AUTO_ENABLE ?= "disable"

# The supplicant's control socket is given to this group.
USERADD_PACKAGES = "${PN}"
GROUPADD_PARAM:${PN} = "--system apps"

do_install:append() {
    DESTDIR=${D} cmake --install ${B} --component tarn
    # busybox is the only one with an ifup here, so the scripts lie as board/README.md has them.
    sh ${S}/board/install.sh ${D}
    # The broker's and the DHCP client's own packages have these; the maker's image takes ours.
    install -d ${D}${datadir}/netwarden-board
    mv ${D}${sysconfdir}/mosquitto/mosquitto.conf ${D}${datadir}/netwarden-board/mosquitto.conf
    mv ${D}${sysconfdir}/network/interfaces ${D}${datadir}/netwarden-board/interfaces
    rmdir ${D}${sysconfdir}/mosquitto
    # Where this release of the layers has units.
    if [ ${systemd_system_unitdir} != ${nonarch_libdir}/systemd/system ]; then
        install -d ${D}${systemd_system_unitdir}
        mv ${D}${nonarch_libdir}/systemd/system/netwarden.service ${D}${systemd_system_unitdir}/
        rmdir -p --ignore-fail-on-non-empty ${D}${nonarch_libdir}/systemd/system
    fi
    # Persistent in a real image: a mount goes over it.
    install -d ${D}/opt/halvik/persistent/opt/halvik/data/kvs
}

PACKAGES =+ "${PN}-board"
FILES:${PN} += " \
    ${systemd_system_unitdir} ${sysconfdir}/default /opt/halvik/persistent \
    ${datadir}/bash-completion ${datadir}/zsh \
"
FILES:${PN}-board = " \
    ${bindir}/provision ${bindir}/version ${bindir}/get_lang.sh ${bindir}/network_*.sh ${bindir}/webserver_control.sh \
    ${nonarch_libdir}/netwarden-board ${datadir}/netwarden-board \
    ${sysconfdir}/netwarden-board ${sysconfdir}/network ${sysconfdir}/udhcpc ${sysconfdir}/sudoers.d \
    /opt/halvik/bin \
"
CONFFILES:${PN} = "${sysconfdir}/default/netwarden"
CONFFILES:${PN}-board = "${sysconfdir}/netwarden-board/board.conf ${sysconfdir}/netwarden-board/hostapd.conf.template"

RDEPENDS:${PN} = "${PN}-board sudo"
RDEPENDS:${PN}-board = "busybox busybox-udhcpc hostapd iproute2 iputils-arping iw mosquitto sudo wireless-regdb-static wpa-supplicant"
RRECOMMENDS:${PN}-board = "avahi-utils dnsmasq"
