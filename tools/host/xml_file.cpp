#include "xml_file.h"

#include "console.h"
#include "win/module_path.h"
#include "win/unique_resource.h"
#include "xml_parse_fault.h"

namespace zeph::host {

namespace {

std::wstring ParseErrorText(IXMLDOMDocument* document)
{
    const DomParseError error = ParseErrorOf(document);
    std::wstring where;
    if (error.line > 0) {
        where = L" at line " + std::to_wstring(error.line) +
                (error.column > 0 ? L", column " + std::to_wstring(error.column) : L"");
    }
    return L"not well-formed XML" + where + (error.reason.empty() ? L"" : L": " + error.reason);
}

}  // namespace

ComPtr<IXMLDOMDocument> NewHostXmlDocument()
{
    ComPtr<IXMLDOMDocument> document;
    if (const HRESULT result = NewXmlDocument(document); FAILED(result)) {
        throw HostError(ExitCode::RunFailed,
                        L"cannot create the XML parser (MSXML 3.0): " + DescribeError(static_cast<DWORD>(result)));
    }
    return document;
}

ComPtr<IXMLDOMDocument> LoadXmlFile(const std::wstring& path, const wchar_t* what, ExitCode missing, ExitCode malformed)
{
    const std::wstring quoted = std::wstring(what) + L" '" + path + L"'";
    std::string bytes;
    {
        const unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                             OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file) {
            throw HostError(missing, L"cannot read the " + quoted + L": " + SystemMessage(::GetLastError()));
        }
        char buffer[65536];
        DWORD read = 0;
        while (::ReadFile(file.get(), buffer, sizeof(buffer), &read, nullptr) && read > 0) {
            bytes.append(buffer, read);
        }
    }
    if (bytes.find_first_not_of(" \t\r\n") == std::string::npos) {
        throw HostError(malformed, L"the " + quoted + L" is empty");
    }
    if (const auto fault = XmlParseFault(bytes)) {
        throw HostError(malformed, L"the " + quoted + L" is not well-formed XML " + fault->Text());
    }
    const ComPtr<IXMLDOMDocument> document = NewHostXmlDocument();
    const HRESULT loaded = LoadXml(document.Get(), FullPath(path));
    if (loaded != S_OK) {
        throw HostError(malformed, L"the " + quoted + L" is " + ParseErrorText(document.Get()));
    }
    if (!RootElement(document.Get())) {
        throw HostError(malformed, L"the " + quoted + L" has no root element");
    }
    return document;
}

}  // namespace zeph::host
