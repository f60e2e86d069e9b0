#!/usr/bin/python3
"""A sender browsing on one interface: both services must show the expected name, port, address
and TXT records."""
import sys
import time

from zeroconf import IPVersion, ServiceBrowser, ServiceStateChange, Zeroconf

own_ip, box_ip, mac, host = sys.argv[1:5]
expected = {
    "_airplay._tcp.local.": (f"{host}._airplay._tcp.local.", 7000, {
        "deviceid": mac, "features": "0x77", "model": "AppleTV2,1", "srcvers": "120.2"}),
    "_raop._tcp.local.": (f"{mac.replace(':', '').upper()}@{host}._raop._tcp.local.", 5000, {
        "txtvers": "1", "ch": "2", "cn": "1", "et": "1", "sr": "44100", "ss": "16", "tp": "UDP",
        "md": "0,1", "pw": "false", "vn": "3", "am": "AppleTV2,1", "vs": "120.2"}),
}
seen = set()


def on_change(zeroconf, service_type, name, state_change):
    if state_change is ServiceStateChange.Added:
        seen.add(name)


zc = Zeroconf(interfaces=[own_ip])
browser = ServiceBrowser(zc, list(expected), handlers=[on_change])
deadline = time.monotonic() + 20
while time.monotonic() < deadline and any(name not in seen for name, _, _ in expected.values()):
    time.sleep(0.1)
failures = 0
for service_type, (name, port, txt) in expected.items():
    info = zc.get_service_info(service_type, name, timeout=5000) if name in seen else None
    problems = [f"not found (seen: {sorted(seen)})"] if info is None else []
    if info:
        got_txt = {k.decode(): (v or b"").decode() for k, v in info.properties.items()}
        v4 = info.parsed_addresses(IPVersion.V4Only)
        problems += [f"port {info.port}, not {port}"] * (info.port != port)
        problems += [f"IPv4 addresses {v4}, not [{box_ip}]"] * (v4 != [box_ip])
        problems += [f"TXT {got_txt}, not {txt}"] * (got_txt != txt)
    print(("FAIL " if problems else "ok   ") + name + (": " + "; ".join(problems) if problems else ""))
    failures += bool(problems)
browser.cancel()
zc.close()
print(f"mdns: {len(expected) - failures} passed, {failures} failed")
sys.exit(1 if failures else 0)
