'''BlueZ mock with beacons: python-dbusmock's bluez5 template plus what a beacon test needs.

Advertise(adapter, address, rssi, company, data) makes the device if it is new
(InterfacesAdded), then sets its RSSI and manufacturer data and announces them with
PropertiesChanged, as bluetoothd does for each advertisement it reports.
SetPowered(adapter, powered) switches the adapter and announces Powered (and Discovering
off when powering off).
'''

import dbus

from dbusmock import mockobject
from dbusmock.templates.bluez5 import *  # noqa: F401,F403 (the template's methods and load)
from dbusmock.templates.bluez5 import ADAPTER_IFACE, BLUEZ_MOCK_IFACE, DEVICE_IFACE
from dbusmock.templates.bluez5 import AddDevice as _add_device


def _changed(obj, interface, props):
    obj.EmitSignal(dbus.PROPERTIES_IFACE, 'PropertiesChanged', 'sa{sv}as',
                   [interface, props, []])


@dbus.service.method(BLUEZ_MOCK_IFACE, in_signature='ssnqay', out_signature='s')
def Advertise(self, adapter, address, rssi, company, data):
    path = f'/org/bluez/{adapter}/dev_' + address.replace(':', '_').upper()
    if path not in mockobject.objects:
        _add_device(self, adapter, address, 'beacon')
    device = mockobject.objects[path]
    props = {
        'RSSI': dbus.Int16(rssi, variant_level=1),
        'ManufacturerData': dbus.Dictionary(
            {dbus.UInt16(company): dbus.Array(data, signature='y', variant_level=1)},
            signature='qv', variant_level=1),
    }
    device.props[DEVICE_IFACE].update(props)
    _changed(device, DEVICE_IFACE, props)
    return path


@dbus.service.method(BLUEZ_MOCK_IFACE, in_signature='sb', out_signature='')
def SetPowered(self, adapter, powered):
    obj = mockobject.objects['/org/bluez/' + adapter]
    props = {'Powered': dbus.Boolean(powered, variant_level=1)}
    if not powered:
        props['Discovering'] = dbus.Boolean(False, variant_level=1)
    obj.props[ADAPTER_IFACE].update(props)
    _changed(obj, ADAPTER_IFACE, props)
