"""Prints what a watch tells, whenever it changes. Usage: python3 phone.py SOCKET"""
import socket, struct, sys, time
from select import select

NAMES = {1: "activity", 2: "steps", 3: "heart rate", 4: "worn"}
WORDS = {1: ["still", "walking", "running", "gesture"], 4: ["no", "yes"]}
STOP, START = bytes.fromhex("14 00 00 01"), bytes.fromhex("13 00 00 01 00")  # of the activity
STEPS, HEART, WORN = (bytes([0x12, 0, 0, sensor]) for sensor in (2, 3, 4))   # measure once
total, count, walked, shown = None, None, 0, {}

def steps(new):
    """The steps walked since the first link, from a new total; None before there were two."""
    global total, count, walked
    if total is not None:
        difference = (new - total) % 2**32        # the count: steps since the watch subscribed
        if difference >= 2**31:
            difference = new                      # a new day's total begins with the count
        known = difference if count is None else count
        if difference < known - abs(new) // 2**23:
            known = 0                             # less by more than a float rounds: anew
        count, walked = difference, walked + difference - known
    total = new
    return None if count is None else walked

def receive(link):
    packet = link.recv(65531)
    if not packet:
        raise ConnectionError("closed")
    if len(packet) == 18:
        sensor, value = packet[3], int(*struct.unpack(">f", packet[13:17]))
        text = steps(value) if sensor == 2 else WORDS[sensor][value] if sensor in WORDS else value
        if text != shown.get(sensor):
            print(NAMES[sensor], text, flush=True)
        shown[sensor] = text
    return packet

def ask(link, request, seconds):
    for end in time.monotonic() + seconds, time.monotonic() + 2 * seconds:  # once more in silence
        link.send(request)
        while (left := end - time.monotonic()) > 0 and select([link], [], [], left)[0]:
            packet = receive(link)
            if (packet[0], packet[3]) == (request[0], request[3]):
                return
    raise TimeoutError("silent")

delay = 0.1
while True:
    try:
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as link:
            link.settimeout(5)                    # also for room to send
            link.connect(sys.argv[1])
            ask(link, STOP, 5)
            print("connected", flush=True)
            delay, total = 0.1, None
            for request, seconds in (START, 5), (STEPS, 5), (STEPS, 5), (WORN, 3.5), (HEART, 20):
                ask(link, request, seconds)
            link.settimeout(None)
            while True:
                receive(link)
    except OSError as error:
        print("away:", error, flush=True)
        time.sleep(delay)
        delay = min(2 * delay, 5)
