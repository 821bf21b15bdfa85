#!/usr/bin/python3
"""Tries the recipes for Yocto and Buildroot as far as a machine without either can.

usage: tests/recipes_test.py

Reads layer, recipe and options (the latter with Kconfig's own rules), makes the archive of the last commit, and takes
from each recipe its settings and install steps to build from that archive: some minutes. Neither bitbake nor
Buildroot is run. Exit code 0 when all is as it should be; each fault is printed.
"""

import fnmatch
import os
import pathlib
import re
import subprocess
import sys
import tempfile

import kconfiglib

ROOT = pathlib.Path(__file__).resolve().parents[1]
LAYER = ROOT / "packaging/yocto/meta-netwarden"
EXTERNAL = ROOT / "packaging/buildroot"
VERSION = re.search(r"project\(netwarden VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text())[1]

# What a file of bitbake may be made of.
ASSIGNMENT = re.compile(r'^(export )?([A-Za-z0-9_${}:./+-]+?)\s*(\?\?=|\?=|:=|\+=|=\+|\.=|=\.|=)\s*"(.*)"$', re.S)
FUNCTION = re.compile(r"^([a-z_]+(?::(?:append|prepend))?)\(\) \{\n(.*?)^\}$", re.S | re.M)

# Variables of the classes and of bitbake.conf that the recipe uses, for an image with merged /usr and for one without.
SURROUNDINGS = {
    "PN": "netwarden", "PV": VERSION, "DISTRO": "nodistro", "sysconfdir": "/etc", "bindir": "/usr/bin", "sbindir": "/usr/sbin",
    "datadir": "/usr/share", "mandir": "/usr/share/man", "libdir": "/usr/lib", "includedir": "/usr/include",
    "nonarch_libdir": "/usr/lib", "docdir": "/usr/share/doc",
}
# What bitbake.conf puts into packages without being told; the first that wants a file gets it, after the recipe's own.
DEFAULT_FILES = {
    "staticdev": ["/usr/lib/*.a"],
    "dev": ["/usr/include", "/usr/lib/pkgconfig"],
    "doc": ["/usr/share/doc", "/usr/share/man"],
    "": ["/usr/bin/*", "/usr/sbin/*", "/etc"],
}

faults = []


def expect(truth, text):
    if not truth:
        faults.append(text)


def run(*command, **settings):
    result = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **settings)
    if result.returncode != 0:
        sys.exit(f"recipes_test: {' '.join(map(str, command))} failed:\n{result.stdout[-3000:]}")
    return result.stdout


class Recipe:
    """A file of bitbake: assignments, functions, inherits. Anything else is a fault."""

    def __init__(self, path, surroundings):
        self.values, self.functions, self.inherits = dict(surroundings), {}, []
        text = path.read_text()
        self.functions.update(FUNCTION.findall(text))
        text = FUNCTION.sub("", text).replace("\\\n", " ")
        for line in text.splitlines():
            if not line.strip() or line.startswith("#"):
                continue
            if line.startswith("inherit "):
                self.inherits += line.split()[1:]
                continue
            found = ASSIGNMENT.match(line)
            expect(found, f"{path.name}: bitbake knows no such line: {line}")
            if found:
                self.assign(*found.group(2, 3, 4))

    def assign(self, name, way, value):
        name = self.expand(name)
        before = self.values.get(name)
        if way in ("?=", "??=") and before is not None:
            return
        if way in ("+=", ".=") and before is not None:
            value = before + (" " if way == "+=" else "") + value
        if way in ("=+", "=.") and before is not None:
            value = value + (" " if way == "=+" else "") + before
        self.values[name] = value

    def expand(self, text):
        def value(match):
            if match[1].startswith("@"):
                data = type("Data", (), {"getVar": lambda _, name: self.values.get(name)})()
                return eval(match[1][1:], {"d": data})  # pylint: disable=eval-used
            expect(match[1] in self.values, f"${{{match[1]}}} is defined nowhere")
            return self.expand(self.values.get(match[1], ""))
        return re.sub(r"\$\{((?:@[^}]+)|[\w]+)\}", value, text)

    def get(self, name):
        return self.expand(self.values[name])


def settings_are_known(options, where):
    known = "".join(path.read_text() for path in [ROOT / "CMakeLists.txt", *ROOT.glob("cmake/*.cmake")])
    for name in re.findall(r"-D(NETWARDEN_\w+)=", options):
        expect(re.search(rf"(set|option)\({name} ", known), f"{where}: the build knows no {name}")


def build(source, folder, options, install_to):
    """As the cmake classes of both do it: a toolchain file of their own, settings, everything, install."""
    toolchain = folder / "toolchain.cmake"
    folder.mkdir()
    toolchain.write_text("set(CMAKE_SYSTEM_NAME Linux)\nset(CMAKE_CXX_COMPILER c++)\nset(CMAKE_CXX_FLAGS \"-O2 -pipe\")\n")
    run("cmake", "-G", "Ninja", "-S", source, "-B", folder / "build", f"-DCMAKE_TOOLCHAIN_FILE={toolchain}",
        "-DCMAKE_INSTALL_PREFIX=/usr", "-DCMAKE_INSTALL_SYSCONFDIR=/etc", "-DCMAKE_INSTALL_LIBDIR=lib", *options.split())
    run("nice", "-n", "10", "cmake", "--build", folder / "build")
    run("cmake", "--install", folder / "build", env={**os.environ, "DESTDIR": str(install_to)})
    return folder / "build"


def files_under(folder):
    return sorted("/" + str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_symlink() or not path.is_dir())


def owners(recipe, file):
    """The packages of the recipe that take the file, with bitbake.conf's own behind the recipe's."""
    named = {name.removeprefix("FILES:"): recipe.get(name).split() for name in recipe.values if name.startswith("FILES:")}
    found = [package for package, patterns in named.items() if wanted(file, patterns)]
    return found or [package for package, patterns in DEFAULT_FILES.items() if wanted(file, patterns)][:1]


def wanted(file, patterns):
    return any(fnmatch.fnmatch(file, pattern) or file.startswith(pattern + "/") for pattern in patterns)


def try_yocto(archive, digest, work):
    layer = Recipe(LAYER / "conf/layer.conf", {"LAYERDIR": "/layer", "BBPATH": "", "BBFILES": "", "BBFILE_COLLECTIONS": ""})
    pattern = layer.get("BBFILES").split()[-1].replace("/layer", str(LAYER))
    recipes = [path for path in LAYER.rglob("*.bb") if fnmatch.fnmatch(str(path), pattern)]
    expect(recipes == [next(LAYER.rglob("*.bb"))], f"layer.conf: BBFILES finds {recipes}")
    path = recipes[0]
    expect(path.stem == f"netwarden_{VERSION}", f"{path.name} is not the recipe of version {VERSION}")
    for units in ("/usr/lib/systemd/system", "/lib/systemd/system"):
        place = work / units.strip("/").replace("/", "-")
        place.mkdir()
        run("tar", "-C", place, "-xzf", archive)
        surroundings = {**SURROUNDINGS, "WORKDIR": str(place), "D": str(place / "image"), "B": str(place / "out/build"),
                        "systemd_system_unitdir": units, "NETWARDEN_HASH": digest}
        recipe = Recipe(path, surroundings)
        expect(recipe.get("SRC_URI") == f"file://{archive.name}", f"SRC_URI is {recipe.get('SRC_URI')}")
        settings_are_known(recipe.get("EXTRA_OECMAKE"), path.name)
        image = place / "image"
        build(recipe.get("S"), place / "out", recipe.get("EXTRA_OECMAKE"), image)
        run("sh", "-euc", recipe.expand(recipe.functions["do_install:append"]))
        expect((image / units.strip("/") / "netwarden.service").is_file(), f"the unit is not in {units}")
        for file in files_under(image):
            expect(len(owners(recipe, file)) == 1, f"{path.name}: {file} goes into {owners(recipe, file) or 'no package'}")
        for name in ("CONFFILES:netwarden", "CONFFILES:netwarden-board"):
            for file in recipe.get(name).split():
                expect((image / file.strip("/")).is_file(), f"{path.name}: {name} has {file}, which is not there")
        said = run(image / "usr/sbin/netwarden", "-v")
        expect(f" {VERSION}-release@{digest}/" in said and "yocto" in said, f"the daemon of the recipe says {said}")
        expect((image / "usr/lib/libtarn.a").is_file(), "the recipe installs no libtarn")


def try_kconfig(work):
    """Buildroot's own symbols are stood in for by free ones."""
    text = (EXTERNAL / "package/netwarden/Config.in").read_text()
    own = set(re.findall(r"^config (\w+)", text, re.M))
    foreign = set(re.findall(r"BR2_\w+", text)) - own - {"BR2_EXTERNAL_NETWARDEN_PATH"}
    selected = set(re.findall(r"select (\w+)", text)) - own
    stub = work / "Config.in"
    stub.write_text("".join(f'config {name}\n\tbool "{name}"\n' for name in sorted(foreign)) + f'source "{EXTERNAL}/Config.in"\n')
    os.environ["BR2_EXTERNAL_NETWARDEN_PATH"] = str(EXTERNAL)
    options = kconfiglib.Kconfig(str(stub), warn_to_stderr=False)
    expect(not options.warnings, f"Config.in: {options.warnings}")
    package = options.syms["BR2_PACKAGE_NETWARDEN"]
    expect(package.visibility == 0, "Config.in: netwarden is offered to any toolchain")
    for name in foreign - selected - {"BR2_STATIC_LIBS"}:
        options.syms[name].set_value("y")
    package.set_value("y")
    expect(package.str_value == "y", "Config.in: netwarden cannot be chosen")
    for name in own | selected:
        if options.syms[name].type == kconfiglib.BOOL:
            expect(options.syms[name].str_value == "y", f"Config.in: {name} is not chosen with it")
    options.syms["BR2_STATIC_LIBS"].set_value("y")
    expect(package.str_value == "n", "Config.in: netwarden is offered to static systems")


# As much of Buildroot as the package's file needs to be read and its steps to be run.
MAKE = r"""
qstrip = $(strip $(subst ",,$(1)))
INSTALL = install
define cmake-package
$(eval NETWARDEN_READ = yes)
endef
include $(BR2_EXTERNAL_NETWARDEN_PATH)/external.mk
variables:
	@echo 'read $(NETWARDEN_READ)'; echo 'source $(NETWARDEN_SITE_METHOD) $(NETWARDEN_SITE)/$(NETWARDEN_SOURCE)'
	@echo 'options $(NETWARDEN_CONF_OPTS)'; echo 'needs $(NETWARDEN_DEPENDENCIES)'
define newline


endef
install:
	$(NETWARDEN_INSTALL_STAGING_CMDS)
	$(foreach hook,$(NETWARDEN_POST_INSTALL_TARGET_HOOKS),$($(hook))$(newline))
	$(NETWARDEN_INSTALL_INIT_SYSV)
"""


def try_buildroot(archive, digest, work):
    place = work / "buildroot"
    place.mkdir()
    try_kconfig(place)
    (place / "Makefile").write_text(MAKE)
    (place / "host/bin").mkdir(parents=True)
    (place / "host/bin/cmake").symlink_to("/usr/bin/cmake")
    run("tar", "-C", place, "-xzf", archive)
    given = {"BR2_EXTERNAL_NETWARDEN_PATH": EXTERNAL, "BR2_PACKAGE_NETWARDEN_ARCHIVES": f'"{archive.parent}"', "BR2_ARCH": '"x86_64"',
             "BR2_PACKAGE_NETWARDEN_HASH": f'"{digest}"', "BR2_PACKAGE_NETWARDEN_CLIENT": "y", "BR2_PACKAGE_NETWARDEN_BOARD": "y",
             "STAGING_DIR": place / "staging", "TARGET_DIR": place / "target", "HOST_DIR": place / "host",
             "NETWARDEN_BUILDDIR": place / "out/build", "@D": place / f"netwarden-{VERSION}",
             "NETWARDEN_PKGDIR": EXTERNAL / "package/netwarden"}
    make = ["make", "-s", "-C", place, "--no-print-directory", *(f"{name}={value}" for name, value in given.items() if name != "@D")]
    told = dict(line.split(" ", 1) for line in run(*make, "variables").splitlines())
    expect(told["read"] == "yes", "netwarden.mk does not end in a package")
    expect(told["source"] == f"file {archive}", f"netwarden.mk: the source is {told['source']}")
    expect({"cli11", "busybox", "mosquitto"} <= set(told["needs"].split()), f"netwarden.mk: depends on {told['needs']}")
    settings_are_known(told["options"], "netwarden.mk")
    expect("RENEW_SIGNAL=10" in told["options"], f"netwarden.mk: {told['options']}")
    mips = run(*make, "BR2_ARCH=mipsel", "variables")
    expect("RENEW_SIGNAL=16" in mips, f"netwarden.mk: {mips}")
    target = place / "target"
    target.mkdir()
    build(place / f"netwarden-{VERSION}", place / "out", told["options"], target)
    # $(@D) is the folder of the target's stamp, which lies in the package's build folder.
    (place / "steps.mk").write_text((place / "Makefile").read_text().replace("install:", f"{given['@D']}/.stamp_installed:"))
    run(*make, "-f", "steps.mk", f"{given['@D']}/.stamp_installed")
    for file in ("target/usr/sbin/netwarden", "target/usr/bin/netwardenctl", "target/usr/bin/provision", "target/etc/init.d/S60netwarden",
                 "target/opt/halvik/persistent/opt/halvik/data/kvs", "staging/usr/lib/libtarn.a", "staging/usr/include/netwarden/tarn/tarn.h"):
        expect((place / file).exists(), f"netwarden.mk installs no {file}")
    expect(not (target / "usr/include").exists(), "netwarden.mk: headers on the robot")
    expect(digest in run(target / "usr/sbin/netwarden", "-v"), "netwarden.mk: the daemon does not know its hash")


def main():
    if len(sys.argv) > 1:
        print(__doc__)
        return 0 if sys.argv[1] in ("-h", "--help") else 2
    with tempfile.TemporaryDirectory() as folder:
        work = pathlib.Path(folder)
        (work / "archives").mkdir()
        archive, digest = run(ROOT / "packaging/archive", work / "archives").split()
        first = pathlib.Path(archive).read_bytes()
        run(ROOT / "packaging/archive", work / "archives")
        expect(pathlib.Path(archive).read_bytes() == first, "packaging/archive makes other bytes of the same commit")
        try_yocto(pathlib.Path(archive), digest, work)
        try_buildroot(pathlib.Path(archive), digest, work)
    for fault in faults:
        print(fault)
    print(f"recipes: {len(faults)} faults")
    return 1 if faults else 0


sys.exit(main())
