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
    return XmlFault{error.line, error.line > 0 ? error.column : 0, error.reason}.Text();
}

}  // namespace

std::wstring DecodeText(const std::string& bytes)
{
    auto utf16 = [&](size_t skip, bool bigEndian) {
        std::wstring text;
        text.reserve((bytes.size() - skip) / 2);
        for (size_t i = skip; i + 1 < bytes.size(); i += 2) {
            const auto first = static_cast<unsigned char>(bytes[i]);
            const auto second = static_cast<unsigned char>(bytes[i + 1]);
            text += static_cast<wchar_t>(bigEndian ? (first << 8) | second : (second << 8) | first);
        }
        return text;
    };
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
        static_cast<unsigned char>(bytes[1]) == 0xFE) {
        return utf16(2, false);
    }
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFE &&
        static_cast<unsigned char>(bytes[1]) == 0xFF) {
        return utf16(2, true);
    }
    if (bytes.size() >= 2 && bytes[0] != 0 && bytes[1] == 0) {
        return utf16(0, false);  // PowerShell and friends, without a mark
    }
    const size_t skip = bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
    const char* data = bytes.data() + skip;
    const int size = static_cast<int>(bytes.size() - skip);
    UINT codePage = CP_UTF8;
    int length = ::MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, data, size, nullptr, 0);
    if (length == 0 && size > 0) {
        codePage = CP_ACP;
        length = ::MultiByteToWideChar(codePage, 0, data, size, nullptr, 0);
    }
    std::wstring text(static_cast<size_t>(length), L'\0');
    ::MultiByteToWideChar(codePage, 0, data, size, text.data(), length);
    return text;
}

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
    if (const auto fault = XmlParseFault(DecodeText(bytes))) {
        throw HostError(malformed, L"the " + quoted + L" is " + fault->Text());
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
