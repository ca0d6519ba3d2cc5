# The running configuration as a batch for `ip`: addresses, gateways and routes of every interface.
# Whatever else the interfaces have goes. With $pulse, the ports first go down.

def prefix: split(".") | map({"255": 8, "254": 7, "252": 6, "248": 5, "240": 4, "224": 3, "192": 2,
                              "128": 1, "0": 0}[.]) | add;
def metric: if .metric then " metric \(.metric)" else "" end;

(.hardware.ports // {}) as $ports
| def up: .enable and (($ports[.device].enable) != false);

.network.interfaces as $interfaces
| [$interfaces[]] as $all
| (if $pulse then $all[] | "link set dev \(.device) down" else empty end),
  ($all[] | "addr flush dev \(.device) scope global"),
  ($all[] | select(up | not) | "link set dev \(.device) down"),
  ($all[] | select(up)
   | "link set dev \(.device) mtu \(.mtu // 1500) up",
     (select(.mode == "static")
      | "addr add \(.address)/\(.netmask | prefix) broadcast + dev \(.device)",
        (select(.gateway) | "route replace default via \(.gateway) dev \(.device)\(metric)"))),
  ((.network.routes.static // [])[]
   | . as $route | $interfaces[.interface] // empty | select(up) | .device as $device | $route
   | "route replace \(.destination)" + (if .gateway then " via \(.gateway)" else "" end)
     + " dev \($device)\(metric)")
