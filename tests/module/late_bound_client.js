// A late-bound client of the provider: everything goes through IDispatch and
// the registry, as a script host sees them. Argument: the state to check,
// "registered", "per-user" or "unregistered". Exit code 0 when all checks pass.
var CLSID = "{DAF69464-F4E2-40C0-BCC3-A30E819975F0}";
var PROGID = "ZephAgent.EventLogProvider";
var TYPELIB = "HKCR\\TypeLib\\{BA21C1A6-3183-4E99-A464-6DF4178B7249}\\1.0\\";
var DISP_E_TYPEMISMATCH = 0x80020005;
var shell = new ActiveXObject("WScript.Shell");
var failures = 0;

function check(condition, what) {
    if (!condition) {
        WScript.Echo("FAILED: " + what);
        failures++;
    }
}

function readKey(path) {
    try {
        return shell.RegRead(path);
    } catch (e) {
        return null;
    }
}

function fails(action) {
    try {
        action();
        return false;
    } catch (e) {
        return true;
    }
}

function hex(number) {
    return "0x" + (number >>> 0).toString(16);
}

// Runs a provider method and reports a thrown failure HRESULT.
function succeeds(what, action) {
    try {
        action();
    } catch (e) {
        check(false, what + " threw " + hex(e.number) + " " + e.description);
    }
}

function configElement(xml) {
    var document = new ActiveXObject("Msxml2.DOMDocument.3.0");
    document.async = false;
    check(document.loadXML(xml), "loadXML " + xml);
    return document.documentElement;
}

function checkTables(root) {
    check(readKey(root + PROGID + "\\") == "Zeph Event Log Provider Class", root + PROGID);
    check(readKey(root + PROGID + "\\CurVer\\") == PROGID + ".1", root + PROGID + "\\CurVer");
    check(readKey(root + PROGID + ".1\\CLSID\\") == CLSID, root + PROGID + ".1\\CLSID");
    check(readKey(root + "CLSID\\" + CLSID + "\\InprocServer32\\ThreadingModel") == "Both", "ThreadingModel");
    var path = readKey(root + "CLSID\\" + CLSID + "\\InprocServer32\\");
    check(path != null && /\\zeph_eventlog\.dll$/i.test(path), "InprocServer32 is the DLL's full path: " + path);
    check(readKey(root + "AppID\\zeph_eventlog.dll\\AppID") == "{44D2B20B-C31C-43B7-A2E6-B5FA579BFDF2}", "AppID");
}

function checkGone(root) {
    check(readKey(root + PROGID + "\\") == null, root + PROGID + " is gone");
    check(readKey(root + PROGID + ".1\\") == null, root + PROGID + ".1 is gone");
    check(readKey(root + "CLSID\\" + CLSID + "\\") == null, root + "CLSID\\" + CLSID + " is gone");
    check(readKey(root + "AppID\\zeph_eventlog.dll\\AppID") == null, root + "AppID\\zeph_eventlog.dll is gone");
}

// A script's null for the sink: type-library dispatch may refuse to turn it
// into an interface pointer (Wine does, with DISP_E_TYPEMISMATCH) before the
// provider is reached; if it gets through, the provider must accept it.
function queryWithNullSink(provider, name) {
    try {
        provider.QueryMetric(name, 0, null);
    } catch (e) {
        check((e.number >>> 0) == DISP_E_TYPEMISMATCH, "QueryMetric(" + name + ", 0, null) threw " + hex(e.number));
    }
}

function driveProvider(progId) {
    var provider = new ActiveXObject(progId);
    var config = configElement("<metric><channel>Application</channel><query>*</query></metric>");
    // An object without IMetricValueSink reaches the metric as a null sink.
    var notASink = new ActiveXObject("Msxml2.DOMDocument.3.0");

    // Names the factory does not know are accepted and ignored.
    succeeds("SubscribeMetric(unknown)", function () { provider.SubscribeMetric("eventlog|no_such_metric", config); });
    queryWithNullSink(provider, "eventlog|no_such_metric");
    succeeds("QueryMetric(unknown)", function () { provider.QueryMetric("eventlog|no_such_metric", 0, notASink); });
    succeeds("UnsubscribeMetric(unknown)", function () { provider.UnsubscribeMetric("eventlog|no_such_metric"); });

    // The known metrics on the simulated event log; nothing has happened yet, so
    // their queries write nothing and succeed.
    var known = ["eventlog|eventlog_appcrash", "eventlog|eventlog_quillon"];
    for (var i = 0; i < known.length; i++) {
        var name = known[i];
        succeeds("SubscribeMetric(" + name + ")", function () { provider.SubscribeMetric(name, config); });
        queryWithNullSink(provider, name);
        succeeds("QueryMetric(" + name + ")", function () { provider.QueryMetric(name, 0, notASink); });
        succeeds("UnsubscribeMetric(" + name + ")", function () { provider.UnsubscribeMetric(name); });
    }

    // A failed subscription comes back as an error: no channel in the configuration.
    var error = 0;
    try {
        provider.SubscribeMetric("eventlog|eventlog_quillon", configElement("<metric><query>*</query></metric>"));
    } catch (e) {
        error = e.number;
    }
    check((error >>> 0) == 0x80070490, "SubscribeMetric without a channel gives 0x80070490, got " + hex(error));
    succeeds("SubscribeMetric(appcrash) again", function () { provider.SubscribeMetric(known[0], config); });

    succeeds("UnsubscribeAllMetrics", function () { provider.UnsubscribeAllMetrics(); });
    succeeds("Reserved1", function () { provider.Reserved1(); });
    check(fails(function () { provider.NoSuchMethod(); }), "an unknown method fails");
}

try {
    var state = WScript.Arguments.length > 0 ? WScript.Arguments(0) : "";
    if (state == "registered") {
        checkTables("HKCR\\");
        check(readKey(TYPELIB) == "Zeph Event Log Provider 1.0 Type Library", "type library registered");
        checkGone("HKCU\\Software\\Classes\\");
        driveProvider(PROGID);
        driveProvider(PROGID + ".1");
    } else if (state == "per-user") {
        // Creation is not tried: Wine's classes root does not include the
        // current user's classes, so per-user ProgIDs are not found there.
        checkTables("HKCU\\Software\\Classes\\");
        checkGone("HKLM\\Software\\Classes\\");
    } else if (state == "unregistered") {
        checkGone("HKCR\\");
        checkGone("HKCU\\Software\\Classes\\");
        check(readKey(TYPELIB) == null, "type library unregistered");
        check(fails(function () { new ActiveXObject(PROGID); }), "the ProgID no longer creates anything");
    } else {
        check(false, "unknown state '" + state + "'");
    }
} catch (e) {
    check(false, "unexpected error " + hex(e.number) + " " + e.description);
}
WScript.Quit(failures == 0 ? 0 : 1);
