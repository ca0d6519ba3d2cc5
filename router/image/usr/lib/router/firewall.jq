# The running configuration as an nftables script. The whole table is replaced at once.

.network.interfaces as $interfaces
| def device: . as $name | $interfaces[$name].device // $name;
def ports: if .last_port then "\(.port)-\(.last_port)" else "\(.port)" end;
def protocol: {"tcp": "meta l4proto tcp", "udp": "meta l4proto udp", "icmp": "meta l4proto icmp"}[.];
def verdict: if . == "reject" then "reject" else . end;
def policy: if . == "reject" then "drop" else . end;

def match:
    [(select(.interface) | "iifname \"\(.interface | device)\""),
     (select(.protocol and .protocol != "any" and (.port | not)) | .protocol | protocol),
     (select(.source) | "ip saddr \(.source)"),
     (select(.destination) | "ip daddr \(.destination)"),
     (select(.port) | if .protocol == "tcp" or .protocol == "udp"
                      then "\(.protocol) dport \(ports)"
                      else "meta l4proto { tcp, udp } th dport \(ports)" end)]
    | join(" ");
def rules($chain): (.rules // [])[] | select(.enable and .chain == $chain)
    | "    \(match) \(.action | verdict) comment \"\(.name)\"";
def last_word: select(. == "reject") | "    reject";

.network.firewall // {"enable": false}
| "add table ip router", "delete table ip router",
  (select(.enable)
   | (.policy.input // "accept") as $input | (.policy.forward // "accept") as $forward
   | "table ip router {",
     "  chain input {",
     "    type filter hook input priority filter; policy \($input | policy);",
     "    iifname \"lo\" accept",
     "    ct state established,related accept",
     rules("input"), ($input | last_word),
     "  }",
     "  chain forward {",
     "    type filter hook forward priority filter; policy \($forward | policy);",
     "    ct state established,related accept",
     rules("forward"), ($forward | last_word),
     "  }",
     "  chain prerouting {",
     "    type nat hook prerouting priority dstnat;",
     ((.port_forwards // [])[] | select(.enable)
      | "    iifname \"\(.interface | device)\" \(.protocol) dport \(.port) "
        + "dnat to \(.to_address):\(.to_port) comment \"\(.name)\""),
     "  }",
     "  chain postrouting {",
     "    type nat hook postrouting priority srcnat;",
     ((.masquerade // [])[] | "    oifname \"\(device)\" masquerade"),
     "  }",
     "}")
