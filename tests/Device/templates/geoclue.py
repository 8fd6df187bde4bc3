'''GeoClue2 mock: the manager hands out one client; the client starts unless the test
refused it (Refuse), and SetLocation publishes a new Location object and announces it with
the client's LocationUpdated.
'''

import dbus

from dbusmock import MOCK_IFACE, mockobject

BUS_NAME = 'org.freedesktop.GeoClue2'
MAIN_OBJ = '/org/freedesktop/GeoClue2/Manager'
MAIN_IFACE = 'org.freedesktop.GeoClue2.Manager'
SYSTEM_BUS = True

CLIENT_PATH = '/org/freedesktop/GeoClue2/Client/1'
CLIENT_IFACE = 'org.freedesktop.GeoClue2.Client'
LOCATION_IFACE = 'org.freedesktop.GeoClue2.Location'


def load(mock, _parameters):
    mock.qvl_refused = False
    mock.qvl_fixes = 0
    mock.AddMethod(MAIN_IFACE, 'GetClient', '', 'o', 'ret = self.CreateClient()')


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='o')
def CreateClient(self):
    if CLIENT_PATH not in mockobject.objects:
        self.AddObject(CLIENT_PATH, CLIENT_IFACE, {
            'DesktopId': dbus.String(''),
            'RequestedAccuracyLevel': dbus.UInt32(0),
            'Location': dbus.ObjectPath('/'),
            'Active': dbus.Boolean(False),
        }, [])
        client = mockobject.objects[CLIENT_PATH]
        client.AddMethod(CLIENT_IFACE, 'Start', '', '',
                         'self.Activate()')
        client.AddMethod(CLIENT_IFACE, 'Stop', '', '', 'self.props["%s"]["Active"] = False' % CLIENT_IFACE)
    return CLIENT_PATH


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='')
def Activate(self):
    manager = mockobject.objects[MAIN_OBJ]
    if manager.qvl_refused or not self.props[CLIENT_IFACE]['DesktopId']:
        raise dbus.exceptions.DBusException('refused', name='org.freedesktop.DBus.Error.AccessDenied')
    self.props[CLIENT_IFACE]['Active'] = True


@dbus.service.method(MOCK_IFACE, in_signature='b', out_signature='')
def Refuse(self, refused):
    self.qvl_refused = refused


@dbus.service.method(MOCK_IFACE, in_signature='ddd', out_signature='')
def SetLocation(self, latitude, longitude, accuracy):
    self.qvl_fixes += 1
    path = f'/org/freedesktop/GeoClue2/Location/{self.qvl_fixes}'
    self.AddObject(path, LOCATION_IFACE, {
        'Latitude': dbus.Double(latitude),
        'Longitude': dbus.Double(longitude),
        'Accuracy': dbus.Double(accuracy),
    }, [])
    client = mockobject.objects[CLIENT_PATH]
    previous = client.props[CLIENT_IFACE]['Location']
    client.props[CLIENT_IFACE]['Location'] = dbus.ObjectPath(path)
    client.EmitSignal(CLIENT_IFACE, 'LocationUpdated', 'oo', [previous, dbus.ObjectPath(path)])
