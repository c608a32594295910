#pragma once

#include "foundation/lum/PercentEncoding.h"
#include "lum/CFileSystemError.h"
#include "lum/CURI.h"

#include <type_traits>

namespace lum {

namespace detail {

/// The names in `text`, a part of `uri`, with their escapes undone and between the system's separators.
template <class Traits>
String undoEscapes(const String& text, const CURI& uri) {
    std::wstring result;
    percent::forEachPiece(text, [&](const percent::CPiece& piece) {
        if (piece.isEscaped && !piece.isCharacter)
            throw CBadPathError(uri.toString(true), "An escape does not belong to a character");
        if (piece.written == L"/")
            result += Traits::separator;
        else if (piece.character < 0x80 && Traits::isSeparator(static_cast<wchar_t>(piece.character)))
            throw CBadPathError(uri.toString(true), "A separator is in no name");
        else if (piece.isEscaped)
            utf8::appendCharacter(result, piece.character);
        else
            result += piece.written;
    });
    return String(std::move(result));
}

/// "\C:\dir" as "C:\dir", and with a server "\\server\dir".
inline String finishWindowsPath(const String& path, const String& server) {
    if (!server.isEmpty())
        return "\\\\" + server + path;
    if (CWindowsPathTraits::getRootLength(path) == 1) {
        String fromDrive = path.Mid(1);
        const int driveLength = CWindowsPathTraits::getRootLength(fromDrive);
        if (driveLength == 3)
            return fromDrive;
        return driveLength == 2 && fromDrive.getLength() == 2 ? fromDrive + "\\" : path;
    }
    // A name that only looks like a drive gets no chance to be one.
    return CWindowsPathTraits::getRootLength(path) == 0 || path[0] == L'\\' ? path : ".\\" + path;
}

} // namespace detail

/// The path that `uri` names in the writing of one kind of system: the reverse of building a CURI from
/// such a path. A relative path stays relative.
///
/// Nothing is guessed. What a path cannot say, and names that such a system cannot have, are refused, so
/// that no other file is opened than the one that is named.
///
/// Throws: CFileSystemError, Problem_NotSupported, parameter "uri", for a scheme other than "file", a
/// query, fragment, user or port, and, on systems without UNC paths, a host other than "localhost".
/// CBadPathError for a name that the system cannot have.
template <class Traits>
String uriToPath(const CURI& uri) {
    constexpr bool isWindows = std::is_same_v<Traits, CWindowsPathTraits>;
    const auto refuse = [&](const char* message) {
        throw CFileSystemError(CFileSystemError::Problem_NotSupported,
                               CError(message, String(), -1, CProps().add("uri", uri.toString(true))));
    };
    const String scheme = uri.getScheme().Lower();
    if (!scheme.isEmpty() && scheme != "file")
        refuse("Only files can be opened, no URIs with another scheme");
    if (uri.getQuery() || uri.getFragment() || uri.getUserInfo() || uri.getPort() >= 0)
        refuse("A file's URI has no query, fragment, user or port");
    String server = uri.getHost() ? *uri.getHost() : String();
    if (server.Lower() == "localhost")
        server = String();
    if (!server.isEmpty() && !isWindows)
        refuse("Files on another computer cannot be opened by its name");

    String path = detail::undoEscapes<Traits>(uri.getPath(), uri);
    if constexpr (isWindows)
        path = detail::finishWindowsPath(path, detail::undoEscapes<Traits>(server, uri));
    return TPathImpl<Traits>(path).toString();
}

} // namespace lum
