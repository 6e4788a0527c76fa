# SPDX-License-Identifier: Apache-2.0
"""A stub of the programs bitbake-layers and bitbake in a build directory, for layers with one recipe.

    bitbake_stub.py bitbake-layers add-layer DIRECTORY
    bitbake_stub.py bitbake IMAGE                       the image is tmp/rootfs
"""
import pathlib
import sys

from bitbake import Recipe


def add_layer(directory):
    layer = pathlib.Path(directory)
    assert (layer / "conf/layer.conf").is_file(), f"{layer} is not a layer"
    with open("conf/bblayers.conf", "a", encoding="utf-8") as file:
        file.write(f"{layer}\n")


def local_settings():
    """The variables of conf/local.conf, which a recipe's weak defaults do not replace."""
    settings, extra = {}, ""
    for line in pathlib.Path("conf/local.conf").read_text("utf-8").splitlines():
        name, _, value = line.partition(" = ")
        if name == "IMAGE_INSTALL:append":
            extra += value.strip('"')
        elif name:
            settings[name] = value.strip('"')
    return settings, extra.split()


def build(_image):
    settings, packages = local_settings()
    assert packages == ["runeld"], packages
    layer = pathlib.Path(pathlib.Path("conf/bblayers.conf").read_text("utf-8").strip())
    recipe = Recipe(next(layer.glob("recipes-*/*/runeld_*.bb")), **settings)
    work = pathlib.Path("tmp").absolute()
    work.mkdir()
    recipe.fetch_and_unpack(work)
    recipe.compile()
    recipe.install()
    (work / "image").rename(work / "rootfs")
    # update-rc.d at the first boot: the start link of the runlevels, or none
    words = recipe.getVar("INITSCRIPT_PARAMS").split()
    if words[0] == "defaults":
        links = work / "rootfs/etc/rc5.d"
        links.mkdir(parents=True)
        (links / f"S{words[1]}{recipe.getVar('INITSCRIPT_NAME')}").symlink_to(
            f"../init.d/{recipe.getVar('INITSCRIPT_NAME')}")


def main(program, *arguments):
    if program == "bitbake-layers":
        assert arguments[0] == "add-layer" and len(arguments) == 2, arguments
        add_layer(arguments[1])
    else:
        build(*arguments)


if __name__ == "__main__":
    main(*sys.argv[1:])
