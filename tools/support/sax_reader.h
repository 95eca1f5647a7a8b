// msxml3's SAX reader ("Msxml2.SAXXMLReader.3.0"), for reading XML with the
// position of each part: one way to create it and to run it over a stream.
// Threads: a reader belongs to the thread that runs it (the host's).
#pragma once

#include <windows.h>
#include <msxml2.h>
#include <objidl.h>
#include <wrl/client.h>

#include <optional>
#include <string_view>

// MinGW's msxml2.h does not attach IIDs to the SAX interfaces, which __uuidof and
// IID_PPV_ARGS need.
#if defined(__MINGW32__)
__CRT_UUID_DECL(ISAXXMLReader, 0xa4f96ed0, 0xf829, 0x476e, 0x81, 0xc0, 0xcd, 0xc7, 0xbd, 0x2a, 0x08, 0x02)
__CRT_UUID_DECL(ISAXContentHandler, 0x1545cdfa, 0x9e4e, 0x4497, 0xa8, 0xa4, 0x2b, 0xf7, 0xd0, 0x11, 0x2c, 0x44)
__CRT_UUID_DECL(ISAXErrorHandler, 0xa60511c4, 0xccf5, 0x479e, 0x98, 0xa3, 0xdc, 0x8d, 0xc5, 0x45, 0xb7, 0xd0)
#endif

namespace zeph {

// Failure: CoCreateInstance's HRESULT.
[[nodiscard]] HRESULT NewSaxReader(Microsoft::WRL::ComPtr<ISAXXMLReader>& reader);

// Wine's SAX reader formats each message of the parser into 1024 bytes on its
// stack and overruns them with a longer one, also for a warning about a well-formed
// text. A message quotes names (at most three) and the values of namespace
// declarations, xml:* attributes and the XML declaration: names in markup of at
// most 64 units and such values of at most 200 keep every message short, even at
// three UTF-8 bytes a unit. The offset of the first name or value longer than
// that, or nothing when the text may be given to the reader (always, away from Wine).
std::optional<size_t> TooLongForSaxMessages(std::wstring_view text);

// Runs the reader over the whole stream with the handlers (either may be null) and
// returns what parse returned; the handlers are taken off the reader again afterwards.
HRESULT ParseWithSax(ISAXXMLReader* reader, ISequentialStream* input, ISAXContentHandler* content,
                     ISAXErrorHandler* errors);

}  // namespace zeph
