#!/usr/bin/python3
"""A sender looking for receivers: browses _airplay._tcp and _raop._tcp on the one interface
given and checks each service's instance name, port, address and TXT records against the
expected values. Exits 0 when both services are seen as expected, 1 otherwise."""
import sys
import time

from zeroconf import IPVersion, ServiceBrowser, ServiceStateChange, Zeroconf

own_ip, box_ip, mac, host = sys.argv[1:5]
raop_id = mac.replace(":", "").upper()
expected = {
    "_airplay._tcp.local.": (f"{host}._airplay._tcp.local.", 7000, {
        "deviceid": mac, "features": "0x77", "model": "AppleTV2,1", "srcvers": "120.2"}),
    "_raop._tcp.local.": (f"{raop_id}@{host}._raop._tcp.local.", 5000, {
        "txtvers": "1", "ch": "2", "cn": "1", "et": "1", "sr": "44100", "ss": "16",
        "tp": "UDP", "md": "0,1", "pw": "false", "vn": "3", "am": "AppleTV2,1",
        "vs": "120.2"}),
}
seen = {}


def on_change(zeroconf, service_type, name, state_change):
    if state_change is ServiceStateChange.Added:
        seen.setdefault(service_type, set()).add(name)


zc = Zeroconf(interfaces=[own_ip])
browser = ServiceBrowser(zc, list(expected), handlers=[on_change])
deadline = time.monotonic() + 20
while time.monotonic() < deadline and any(expected[t][0] not in seen.get(t, ()) for t in expected):
    time.sleep(0.1)

failures = 0
for service_type, (name, port, txt) in expected.items():
    info = zc.get_service_info(service_type, name, timeout=5000) if name in seen.get(service_type, ()) else None
    if info is None:
        print(f"FAIL {name}: not found (seen: {sorted(seen.get(service_type, ()))})")
        failures += 1
        continue
    got_txt = {k.decode(): (v or b"").decode() for k, v in info.properties.items()}
    problems = []
    if info.port != port:
        problems.append(f"port {info.port}, not {port}")
    v4 = info.parsed_addresses(IPVersion.V4Only)
    if v4 != [box_ip]:
        problems.append(f"IPv4 addresses {v4}, not [{box_ip}]")
    if got_txt != txt:
        problems.append(f"TXT {got_txt}, not {txt}")
    print(("FAIL " if problems else "ok   ") + name + (": " + "; ".join(problems) if problems else ""))
    failures += bool(problems)

browser.cancel()
zc.close()
print(f"mdns: {len(expected) - failures} passed, {failures} failed")
sys.exit(1 if failures else 0)
