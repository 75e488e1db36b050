"""The vendor's hosts that a build was configured with."""

import dataclasses
import json
import pathlib


@dataclasses.dataclass(frozen=True)
class VendorConfig:
    """The values that CMake wrote into the programs."""

    download_host: str
    web_host: str
    uninstaller_url: str

    @property
    def redirect_page(self):
        """The page that completes an express install."""
        return f"http://{self.web_host}/software/korvel/about/installerRedirect.html"

    @property
    def updater(self):
        """The updater's path below a home folder."""
        return (f"/Library/Preferences/Velmora/Korvel Player/{self.web_host}"
                "/bin/kpupdatepl/kpupdatepl")


def read(build):
    """The VendorConfig of the build folder `build`."""
    text = pathlib.Path(build, "generated/vendor-config.json").read_text(encoding="utf-8")
    values = json.loads(text)
    return VendorConfig(download_host=values["downloadHost"], web_host=values["vendorWebHost"],
                        uninstaller_url=values["uninstallerURL"])


_of_this_run = []


def set_tested(vendor):
    """Sets what tested() returns, before test files are imported."""
    _of_this_run[:] = [vendor]


def tested():
    """The VendorConfig of the build under test."""
    return _of_this_run[0]
