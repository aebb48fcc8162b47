"""Makes COUNT provider calls at once, a thread each, and nothing else of what a driver does.
Prints the CPU seconds that took.

Usage: calls.py BASE_URL KEY COUNT
"""
import json
import resource
import sys
import threading
import urllib.request

base, key, count = sys.argv[1], sys.argv[2], int(sys.argv[3])


def call(number):
    body = json.dumps({"model": "m", "messages": [{"role": "user", "content": str(number)}]})
    request = urllib.request.Request(
        base + "/v1/chat/completions",
        data=body.encode(),
        headers={"Authorization": "Bearer " + key, "Content-Type": "application/json"},
    )
    json.load(urllib.request.urlopen(request))


before = resource.getrusage(resource.RUSAGE_SELF)
threads = [threading.Thread(target=call, args=(number,)) for number in range(count)]
for thread in threads:
    thread.start()
for thread in threads:
    thread.join()
after = resource.getrusage(resource.RUSAGE_SELF)
print(after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime)
