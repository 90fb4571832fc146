# SPDX-License-Identifier: Apache-2.0
"""What dbus-send prints of ConnMan's services, as one line each."""
from __future__ import annotations

from orv_testbed.services import lines

ANSWER = """method return time=1795415719.788899 sender=:1.7 -> destination=:1.26 serial=156 reply_serial=2
   array [
      struct {
         object path "/net/connman/service/ethernet_020000000a01_cable"
         array [
            dict entry(
               string "State"
               variant                   string "ready"
            )
            dict entry(
               string "Type"
               variant                   string "ethernet"
            )
            dict entry(
               string "Name"
               variant                   string "Wired [1]"
            )
            dict entry(
               string "AutoConnect"
               variant                   boolean true
            )
            dict entry(
               string "Ethernet"
               variant                   array [
                     dict entry(
                        string "Interface"
                        variant                            string "eth0"
                     )
                     dict entry(
                        string "MTU"
                        variant                            uint16 1500
                     )
                  ]
            )
            dict entry(
               string "IPv4"
               variant                   array [
                     dict entry(
                        string "Address"
                        variant                            string "10.11.0.179"
                     )
                  ]
            )
            dict entry(
               string "IPv6"
               variant                   array [
                     dict entry(
                        string "PrefixLength"
                        variant                            byte 64
                     )
                     dict entry(
                        string "Address"
                        variant                            string "2001:db8:11:1:0:ff:fe00:a01"
                     )
                  ]
            )
            dict entry(
               string "Nameservers"
               variant                   array [
                     string "10.21.0.53"
                     string "2001:db8:21::53"
                  ]
            )
         ]
      }
      struct {
         object path "/net/connman/service/cellular_001010000000001_context1"
         array [
            dict entry(
               string "Type"
               variant                   string "cellular"
            )
            dict entry(
               string "IPv4"
               variant                   array [
                  ]
            )
            dict entry(
               string "Nameservers"
               variant                   array [
                  ]
            )
            dict entry(
               string "State"
               variant                   string "idle"
            )
         ]
      }
   ]
"""


def test_each_service_has_its_line_in_the_connection_managers_order() -> None:
    assert lines(ANSWER).splitlines() == [
        "eth0 ready ethernet 10.11.0.179 10.21.0.53,2001:db8:21::53 2001:db8:11:1:0:ff:fe00:a01"
        " /net/connman/service/ethernet_020000000a01_cable",
        "- idle cellular - - - /net/connman/service/cellular_001010000000001_context1",
    ]


def test_no_service_is_no_line() -> None:
    assert lines("method return time=1.5 sender=:1.7\n   array [\n   ]\n") == ""
