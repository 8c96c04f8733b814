"""Prints what a watch tells, whenever it changes. Usage: python3 phone.py SOCKET"""
import socket, struct, sys, time

NAMES = {1: "activity", 2: "steps", 3: "heart rate", 4: "worn"}
WORDS = {(1, 0): "still", (1, 1): "walking", (1, 2): "running", (1, 3): "gesture", (4, 0): "no", (4, 1): "yes"}
ASKED = [("14 00 00 01", 5), ("13 00 00 01 00", 5),  # stop and start the activity, with the seconds it may take;
         ("12 00 00 02", 5), ("12 00 00 02", 5), ("12 00 00 04", 3.5), ("12 00 00 03", 20)]  # steps, worn, heart rate
total, count, walked, shown, delay = None, 0, 0, {2: 0}, 0.1

def show(sensor, value):
    global total, count, walked
    if sensor == 2:
        if total is not None:                         # two totals tell the count since the watch subscribed
            new = value - total if value >= total else value      # a new day's total begins with the count
            walked += new - count if new >= count else new        # a smaller count has begun anew
            count = new
        total, value = value, walked
    if value != shown.get(sensor):
        print(NAMES[sensor], WORDS.get((sensor, value), value), flush=True)
    shown[sensor] = value

def read(link, seconds=None, request=b""):
    link.settimeout(seconds)
    while packet := link.recv(65531):
        if len(packet) == 18:
            show(packet[3], int(*struct.unpack(">f", packet[13:17])))
        if request and (packet[0], packet[3]) == (request[0], request[3]):
            return
    raise ConnectionError("closed")

while True:
    try:
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as link:
            link.connect(sys.argv[1])
            total = None
            for request, seconds in ASKED:
                link.send(bytes.fromhex(request))
                read(link, seconds, bytes.fromhex(request))
                delay = 0.1                           # answered: of use
            read(link)
    except OSError as error:
        print("away:", error, flush=True)
        time.sleep(delay)
        delay = min(2 * delay, 5)
