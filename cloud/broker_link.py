"""An MQTT client that reaches the router's inner broker by its Unix socket, without any network.

The MQTT library of Debian 12 knows no Unix sockets, but it opens its connection in one method, which
is replaced here; all else, reconnecting included, is the library's own.
"""
import paho.mqtt.client as mqtt

from router.virtual.state import connect_unix


class BrokerLink(mqtt.Client):
    def __init__(self, socket_path, client_id="cloud"):
        super().__init__(client_id=client_id, clean_session=True)
        self.socket_path = socket_path
        self.reconnect_delay_set(0.05, 1)

    def _create_socket_connection(self):
        return connect_unix(self.socket_path, timeout=5)

    def open(self):
        """Connects in the background, as soon as the broker is there, and again when it was away."""
        self.connect_async("router")
        self.loop_start()

    def close(self):
        self.disconnect()
        self.loop_stop()
