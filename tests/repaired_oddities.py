#!/usr/bin/env python3
"""Repairs the daemon's deliberate oddities one by one, each in a copy of the sources, and names the tests
that notice. An oddity whose repair no test notices is an oddity that somebody will repair by kindness:
the exit status is then 1.

usage: tests/repaired_oddities.py [NAME ...]     builds below build/oddities; about ten minutes for all
"""
import pathlib
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
COPY = ROOT / "build/oddities/source"
BUILD = ROOT / "build/oddities/build"
PROGRAMS = ["unit_core", "unit_store", "unit_rtmsg", "unit_nexthop", "unit_hw", "unit_api", "scenario"]

# name: (file, the source text as it stands, the text as a kind soul would have it)
REPAIRS = {
    "the-wait-is-never-less-than-17-ms": (
        "core/pbr_loop.cpp", "ms % 1000 < LEAST_REMAINDER_MS ? LEAST_REMAINDER_MS : ms % 1000", "ms % 1000"),
    "a-missing-timer-list-is-reported-as-success": (
        "core/pbr_start.cpp", "return cleanUp(PBR_OK);", "return cleanUp(PBR_FAIL);"),
    "a-failed-start-is-printed-twice": (
        "core/pbr_start.cpp", "printInitFailed(); // the second time", ";      // the second time"),
    "every-acl-of-the-report-ends-its-line": (
        "core/pbr_show.cpp", "printf(TEXT_ACL, static_cast<int32_t>(pNode->aclNum));\n        puts(LINE_END);",
        "printf(TEXT_ACL, static_cast<int32_t>(pNode->aclNum));"),
    "the-report-gives-the-administrators-length-twice": (
        "core/pbr_show.cpp", "pNqa->adminNameLen, static_cast<int32_t>(pNqa->status)",
        "pNqa->testNameLen, static_cast<int32_t>(pNqa->status)"),
    "a-failed-probe-request-is-also-told-as-sent": (
        "rtmsg/pbr_nqa_request.cpp", "    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, TEXT_OK); // meant: also behind the error",
        "    if (sent >= 0) PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, TEXT_OK);"),
    "a-probe-report-queues-every-bound-list-behind-its-user": (
        "rtmsg/pbr_nqa_msg.cpp", "matched = matched || isUser;", "matched = isUser;"),
    "no-result-after-failing-counts-as-a-change": (
        "rtmsg/pbr_nqa_msg.cpp", "pNqa->status == msg.status)",
        "pNqa->status == msg.status || (msg.status == NQA_STATUS_NO_RESULT && pNqa->status == PBR_NQA_STATUS_FAILING))"),
    "a-port-reset-of-a-foreign-port-drops-the-rest-of-the-read": (
        "rtmsg/pbr_link_msg.cpp", "        return false; // the rest of the read is dropped", "        return true; // the rest of the read is dropped"),
    "the-payload-length-is-that-of-the-rest-of-the-read": (
        "rtmsg/pbr_rtm_walk.cpp", "const int32_t payloadLen = left - HEADER;",
        "const int32_t payloadLen = static_cast<int32_t>(length) - HEADER;"),
    "a-card-start-also-writes-links-without-entry": (
        "rtmsg/pbr_card_msg.cpp", "    (void)pbrIfNodeHwAdd(pLink); // also",
        "    if (hwStatus == PBR_HW_PROGRAMMED || hwStatus == PBR_HW_FAILED) (void)pbrIfNodeHwAdd(pLink); // also"),
    "an-acl-rule-without-next-hops-does-not-count-as-programmed": (
        "rtmsg/pbr_acl_msg.cpp", "        plainAdd(pList, pLink, event);", "        plainAdd(pList, pLink, event);\n        pRead->hwCount++;"),
    "one-changed-node-rewrites-every-node-behind-it": (
        "nexthop/pbr_if_node_update.cpp", "    for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;\n         pNode = pbrListNodeNext(pList, pNode)) {\n        nodeUpdate(",
        "    for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;\n         pNode = pbrListNodeNext(pList, pNode)) {\n        pRun->changed = 0;\n        nodeUpdate("),
    "the-saved-best-is-carried-to-later-nodes": (
        "nexthop/pbr_if_node_update.cpp", "    TRACE_HARDWARE(TEXT_NODE, static_cast<int32_t>(pNode->nodeIndex));",
        "    TRACE_HARDWARE(TEXT_NODE, static_cast<int32_t>(pNode->nodeIndex));\n    pRun->pSavedBest = nullptr;"),
    "any-reachable-hop-counts-for-later-nodes-of-a-report": (
        "nexthop/pbr_nexthop_state.cpp", "        *pAnyUp = true;\n    }", "        *pAnyUp = true;\n    } else {\n        *pAnyUp = false;\n    }"),
    "of-two-candidates-one-without-probe-never-wins": (
        "nexthop/pbr_nexthop_select.cpp", "if (!isFullyUp(pBest)) {", "if (!isUsableAlone(pBest)) {"),
    "the-marks-of-ecmp-members-are-not-cleared-by-selection": (
        "nexthop/pbr_nexthop_select.cpp", "        if (pHop->nexthopArpState == 1) {\n            pHop->curSelected = 1; // the others",
        "        pHop->curSelected = 0;\n        if (pHop->nexthopArpState == 1) {\n            pHop->curSelected = 1; // the others"),
    "a-time-range-of-id-0-never-gates": (
        "nexthop/pbr_nexthop_select.cpp", "return pNode->timeRangeId != 0 && pNode->timeRangeId != PBR_TIME_RANGE_NONE", "return pNode->timeRangeId != PBR_TIME_RANGE_NONE"),
    "an-add-marks-every-resolved-next-hop": (
        "hw/pbr_if_node_hw.cpp", "pbrNodeIsEcmpGet(pNode) == 0 && pHop->nexthopArpState == 1", "pbrNodeIsEcmpGet(pNode) == 0 && pHop->curSelected == 1"),
    "a-single-ecmp-member-has-no-action-of-its-own": (
        "hw/pbr_hw_acl_content.cpp", "return taken < 2 ? PBR_HW_ACTION_NONE", "return taken < 1 ? PBR_HW_ACTION_NONE"),
    "later-ipv6-members-of-a-rule-land-in-slot-one": (
        "hw/pbr_acl_rule_hw.cpp", "TESTED[] = {284, 288, 292};", "TESTED[] = {340, 356, 372};"),
    "a-removed-rules-settings-are-told-with-the-word-add": (
        "hw/pbr_acl_rule_hw.cpp", "\"pbr acl rule hardware add ipPri=", "\"pbr acl rule hardware ipPri="),
    "the-use-count-of-a-list-wraps-at-sixteen": (
        "hw/pbr_if_bind.cpp", "pbrListRefCntSet(pList, pbrListRefCntGet(pList) + 1);",
        "pbrListRefCntSet(pList, pbrListRefCntGet(pList) == 15 ? 15 : pbrListRefCntGet(pList) + 1);"),
    "a-bind-that-stops-half-way-leaves-what-it-did": (
        "hw/pbr_if_bind.cpp", "            return -1; // no way back",
        "            pbrListRefCntSet(pList, pbrListRefCntGet(pList) - 1);\n            return -1; // no way back"),
    "an-unbind-takes-the-list-out-of-the-ready-table": (
        "hw/pbr_if_bind.cpp", "    listUnlinkInit(&pList->readyLink);\n    listUnlinkInit(&pIf->boundLink);\n    protocolSet(pIf->ifUnit, DISABLE);",
        "    if (pbrListRefCntGet(pList) == 0) listUnlinkInit(&pList->readyLink);\n    listUnlinkInit(&pIf->boundLink);\n    protocolSet(pIf->ifUnit, DISABLE);"),
    "an-address-without-version-is-accepted-and-not-stored": (
        "api/pbr_next_hop_api.cpp", "return PBR_OK; // accepted and not stored", "return PBR_FAIL; // accepted and not stored"),
    "a-walk-answers-with-nodes-of-later-lists-without-next-hops": (
        "api/pbr_walk.cpp", "        if (position.pNode != nullptr) {\n            return position;",
        "        if (position.pNode != nullptr && !listEmpty(&position.pNode->nextHopList)) {\n            return position;"),
    "an-acl-in-use-is-refused-also-for-its-own-node": (
        "api/pbr_node_api.cpp", "const uint32_t result = aclNum == 0 ? PBR_OK : aclUseCheck(aclNum);",
        "const uint32_t result = aclNum == 0 || aclNum == pRow->pNode->aclNum ? PBR_OK : aclUseCheck(aclNum);"),
    "the-refusal-of-a-version-names-the-present-acl": (
        "api/pbr_node_api.cpp", "static_cast<int32_t>(pRow->pNode->aclNum));\n        return PBR_ERR_ACL_VERSION;",
        "static_cast<int32_t>(pRow->pNode->policyRouteIpVer));\n        return PBR_ERR_ACL_VERSION;"),
    "a-time-range-of-id-0-is-not-told-to-the-service-when-dropped": (
        "api/pbr_node_time_range.cpp", "if (pNode->timeRangeId != 0) { // id 0", "if (pNode->timeRangeId != PBR_TIME_RANGE_NONE) { // id 0"),
    "an-unknown-scalar-reads-as-success": (
        "api/pbr_scalar_api.cpp", "return PBR_OK; // an id without scalar", "return PBR_FAIL; // an id without scalar"),
    "the-neighbour-group-is-joined-without-use": (
        "rtmsg/pbr_rt_sock.cpp", "QRV_NETLINK_ADD_MEMBERSHIP, QRV_RTNLGRP_NEIGH,", "QRV_NETLINK_ADD_MEMBERSHIP, QRV_RTNLGRP_LINK,"),
}


def run(command, **options):
    return subprocess.run(command, text=True, capture_output=True, check=False, **options)


def copy_sources():
    for name in ("core", "store", "rtmsg", "nexthop", "hw", "api", "platform", "host", "tests", "cmake", "scripts", "docs"):
        shutil.copytree(ROOT / name, COPY / name, dirs_exist_ok=True, copy_function=shutil.copy, ignore=shutil.ignore_patterns("__pycache__"))
    for name in ("CMakeLists.txt", "CMakePresets.json"):
        shutil.copy(ROOT / name, COPY / name)


def build():
    return run(["cmake", "--build", BUILD, "--target", *PROGRAMS])


def failing_tests():
    """The names of the tests that fail, None when the programs cannot be built."""
    built = build()
    if built.returncode != 0:
        print(built.stdout[-2000:])
        return None
    failed = []
    for program in PROGRAMS:
        try:
            outcome = run([BUILD / "tests" / program, "--gtest_brief=1"], cwd=COPY, timeout=300)
        except subprocess.TimeoutExpired:
            failed.append(f"{program} (does not end)")
            continue
        names = re.findall(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", outcome.stdout, re.M)
        failed += sorted(set(names)) or ([f"{program} (stopped)"] if outcome.returncode != 0 else [])
    return failed


def main():
    names = sys.argv[1:] or list(REPAIRS)
    unknown = [name for name in names if name not in REPAIRS]
    if unknown:
        sys.exit(f"no such oddity: {', '.join(unknown)}; known are: {', '.join(REPAIRS)}")
    if COPY.exists():
        shutil.rmtree(COPY)
    copy_sources()
    configured = run(["cmake", "-S", COPY, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug", "-DPOLICYROUTE_HOST=OFF",
                      "-DCMAKE_CXX_FLAGS=-O0 -Wno-error"])
    if configured.returncode != 0:
        sys.exit(configured.stdout + configured.stderr)
    before = failing_tests()
    if before != []:
        sys.exit(f"the tests fail as the sources stand: {before}")
    unnoticed = []
    for name in names:
        file, odd, repaired = REPAIRS[name]
        path = COPY / file
        text = path.read_text()
        if text.count(odd) != 1:
            unnoticed.append(f"{name}: its source text is not there once")
            continue
        path.write_text(text.replace(odd, repaired))
        failed = failing_tests()
        path.write_text(text)
        if not failed:
            unnoticed.append(f"{name}: " + ("does not build" if failed is None else "no test notices"))
        else:
            print(f"{name}: {len(failed)} tests: {', '.join(failed[:3])}{' ...' if len(failed) > 3 else ''}", flush=True)
    print(f"{len(names) - len(unnoticed)} of {len(names)} repaired oddities are noticed")
    print("\n".join(unnoticed))
    return 1 if unnoticed else 0


if __name__ == "__main__":
    sys.exit(main())
