"""Prints how many tests of a JUnit file passed, failed and were skipped."""
import sys
import xml.etree.ElementTree as ElementTree

cases = list(ElementTree.parse(sys.argv[1]).getroot().iter("testcase"))
skipped = sum(1 for case in cases if case.find("skipped") is not None)
failed = sum(1 for case in cases if case.find("failure") is not None or case.find("error") is not None)
if not cases:
    sys.exit("no test was run")
print(len(cases) - failed - skipped, failed, skipped)
