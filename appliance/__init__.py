"""The stand-in appliance: what a workstation has in place of the appliance's native services.

`Appliance` opens a device, live by default; see its methods. Run `python -m appliance --help` for
the tools.
"""

from appliance.answer import Answer, RawJSON, Source
from appliance.device import Appliance
from appliance.journal import Call, Counts, GILProbes

__all__ = ["Answer", "Appliance", "Call", "Counts", "GILProbes", "RawJSON", "Source"]
