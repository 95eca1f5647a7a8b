// Reading the host's XML files (configuration, scenario) with msxml3's DOMDocument
// (support/xml_document.h, whose element reads come with this header).
#pragma once

#include "exit_codes.h"
#include "support/xml_document.h"

#include <wrl/client.h>

#include <string>

namespace zeph::host {

using Microsoft::WRL::ComPtr;

// Loads a file, keeping white space as written. A file that cannot be opened
// throws HostError(missing), one that does not parse HostError(malformed), both
// with a one-line message naming `what` and the file. No DOMDocument: RunFailed.
ComPtr<IXMLDOMDocument> LoadXmlFile(const std::wstring& path, const wchar_t* what, ExitCode missing,
                                    ExitCode malformed);

// A file's text: UTF-8 or UTF-16 by its byte-order mark, UTF-16LE recognised without one,
// UTF-8 otherwise (the ANSI code page when it is not valid UTF-8).
std::wstring DecodeText(const std::string& bytes);

// A new DOMDocument; throws HostError(RunFailed) when MSXML 3.0 is missing.
ComPtr<IXMLDOMDocument> NewHostXmlDocument();

}  // namespace zeph::host
