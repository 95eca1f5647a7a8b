// A late-bound client of the registered provider: everything through IDispatch
// and the registry, as a script host sees them. With the argument "no-typelib",
// the provider's type library is expected unregistered: IDispatch then takes the
// type information from the DLL file. Exit code 0 when all checks pass.
var CLSID = "{DAF69464-F4E2-40C0-BCC3-A30E819975F0}";
var PROGID = "ZephAgent.EventLogProvider";
var TYPELIB = "HKCR\\TypeLib\\{BA21C1A6-3183-4E99-A464-6DF4178B7249}\\1.0\\";
var shell = new ActiveXObject("WScript.Shell");
var failures = 0;

function check(condition, what) {
    if (!condition) {
        WScript.Echo("FAILED: " + what);
        failures++;
    }
}
function hex(number) { return "0x" + (number >>> 0).toString(16); }
// The HRESULT an action threw, or 0.
function thrown(action) {
    try {
        action();
        return 0;
    } catch (e) {
        return e.number >>> 0;
    }
}
function readKey(path) {
    var value = null;
    thrown(function () { value = shell.RegRead(path); });
    return value;
}
function succeeds(what, action) {
    var error = thrown(action);
    check(error == 0, what + " threw " + hex(error));
}
function configElement(xml) {
    var document = new ActiveXObject("Msxml2.DOMDocument.3.0");
    document.async = false;
    check(document.loadXML(xml), "loadXML " + xml);
    return document.documentElement;
}

// The exact tables are checked in module_test; here, that regsvr32 wrote them.
function checkTables(root) {
    check(readKey(root + PROGID + "\\CurVer\\") == PROGID + ".1", root + PROGID + "\\CurVer");
    var path = readKey(root + "CLSID\\" + CLSID + "\\InprocServer32\\");
    check(path != null && /\\zeph_eventlog\.dll$/i.test(path), "InprocServer32 is the DLL's full path: " + path);
}
function driveProvider(progId) {
    var provider = new ActiveXObject(progId);
    var config = configElement("<metric><channel>Application</channel><query>*</query></metric>");
    // An object without IMetricValueSink reaches the metric as a null sink.
    var notASink = new ActiveXObject("Msxml2.DOMDocument.3.0");
    var names = ["eventlog|no_such_metric", "eventlog|eventlog_appcrash", "eventlog|eventlog_quillon"];
    for (var i = 0; i < names.length; i++) {
        var name = names[i];
        succeeds("SubscribeMetric(" + name + ")", function () { provider.SubscribeMetric(name, config); });
        succeeds("QueryMetric(" + name + ")", function () { provider.QueryMetric(name, 0, notASink); });
        succeeds("UnsubscribeMetric(" + name + ")", function () { provider.UnsubscribeMetric(name); });
    }
    // A failed subscription comes back as an error: no channel in the configuration.
    var noChannel = configElement("<metric><query>*</query></metric>");
    var error = thrown(function () { provider.SubscribeMetric("eventlog|eventlog_quillon", noChannel); });
    check(error == 0x80070490, "SubscribeMetric without a channel gives 0x80070490, got " + hex(error));
    succeeds("UnsubscribeAllMetrics", function () { provider.UnsubscribeAllMetrics(); });
    for (var r = 1; r <= 6; r++) succeeds("Reserved" + r, function () { provider["Reserved" + r](); });
    check(thrown(function () { provider.NoSuchMethod(); }) != 0, "an unknown method fails");
}

var unexpected = thrown(function () {
    checkTables("HKCR\\");
    var registered = WScript.Arguments.length == 0 || WScript.Arguments(0) != "no-typelib";
    check(readKey(TYPELIB) == (registered ? "Zeph Event Log Provider 1.0 Type Library" : null), "type library");
    driveProvider(PROGID);
    driveProvider(PROGID + ".1");
});
check(unexpected == 0, "unexpected error " + hex(unexpected));
WScript.Quit(failures == 0 ? 0 : 1);
