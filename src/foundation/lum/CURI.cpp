#include "lum/CURI.h"

#include "foundation/lum/PercentEncoding.h"
#include "foundation/lum/URIParts.h"
#include "foundation/lum/URIPath.h"
#include "lum/CInvalidArgError.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace lum {

namespace {

constexpr int highestPort = 65535;

bool isScheme(const String& text) noexcept {
    const auto isSchemeCharacter = [](wchar_t wide) {
        const auto c = static_cast<char32_t>(wide);
        return percent::isAsciiLetter(c) || percent::isAsciiDigit(c) || c == U'+' || c == U'-' || c == U'.';
    };
    const std::wstring& characters = text.getWideString();
    return percent::isAsciiLetter(static_cast<char32_t>(text[0])) &&
           std::all_of(characters.begin(), characters.end(), isSchemeCharacter);
}

/// Takes off the text what follows the first `mark`; none without that mark.
std::optional<String> splitOffTail(String& text, wchar_t mark) {
    const int position = text.Find(mark);
    if (position < 0)
        return std::nullopt;
    const String tail = text.Mid(position + 1);
    text = text.Left(position);
    return tail;
}

/// Takes ":" and a port off the end of an authority. Text that is no port stays part of the host.
int splitOffPort(String& authority) {
    const int colon = authority.ReverseFind(L':');
    if (colon < 0)
        return -1;
    int port = 0;
    for (int i = colon + 1; i < authority.getLength(); ++i) {
        const bool isDigit = percent::isAsciiDigit(static_cast<char32_t>(authority[i]));
        port = isDigit ? 10 * port + (authority[i] - L'0') : highestPort + 1;
        if (port > highestPort)
            return -1;
    }
    const bool hasDigits = colon + 1 < authority.getLength();
    authority = authority.Left(colon);
    return hasDigits ? port : -1;
}

/// Adds a character of a name to a path, escaped where it would end the name or the path, or begin an
/// escape.
void appendToName(std::wstring& path, wchar_t c) {
    if (c == L'/' || c == L'%' || c == L'?' || c == L'#')
        percent::appendEscaped(path, static_cast<char32_t>(c));
    else
        path += c;
}

/// The path of a URI from the names in a native path behind its root. A row of separators counts as one.
template <class Traits>
String joinNames(const String& nativePath, int rootLength) {
    std::wstring result;
    for (int i = rootLength; i < nativePath.getLength(); ++i) {
        if (!Traits::isSeparator(nativePath[i]))
            appendToName(result, nativePath[i]);
        else if (!result.empty() && result.back() != L'/')
            result += L'/';
    }
    return String(std::move(result));
}

String withSlash(const String& path) {
    return path.isEmpty() || path.EndsWith("/") ? path : path + "/";
}

void normalizePart(std::optional<String>& part, percent::CharacterClass allowed) {
    if (part)
        part = uripart::normalize(*part, percent::isUnreserved, allowed);
}

String writePart(const String& text, percent::CharacterClass allowed, bool forPeople) {
    return forPeople ? uripart::toReadable(text) : percent::escape(text, allowed);
}

/// The path without "." and ".." segments; `drive` at its start is as a root.
String removeDots(const String& path, const String& drive) {
    return drive + uripath::removeDotSegments(path.Mid(drive.getLength()));
}

} // namespace

CURI::CURI(const String& text) {
    String rest = text;
    m_fragment = splitOffTail(rest, L'#');
    m_query = splitOffTail(rest, L'?');
    const int colon = rest.Find(L':');
    if (colon > 0 && isScheme(rest.Left(colon))) {
        m_scheme = rest.Left(colon);
        rest = rest.Mid(colon + 1);
    }
    if (!rest.StartsWith("//")) {
        m_path = rest;
        return;
    }
    const int slash = rest.Find(L'/', 2);
    String authority = rest.Mid(2, slash < 0 ? -1 : slash - 2);
    m_path = slash < 0 ? String() : rest.Mid(slash);
    const int at = authority.ReverseFind(L'@');
    if (at >= 0) {
        m_userInfo = authority.Left(at);
        authority = authority.Mid(at + 1);
    }
    m_port = splitOffPort(authority);
    m_host = authority;
}

CURI::CURI(const TPathImpl<CUnixPathTraits>& path, bool makeAbsolute) {
    const String& text = path.toString();
    if (text.isEmpty())
        return;
    m_scheme = "file";
    const int rootLength = CUnixPathTraits::getRootLength(text);
    m_path = joinNames<CUnixPathTraits>(text, rootLength);
    if (rootLength > 0) {
        m_host = String();
        m_path = "/" + m_path;
    } else if (makeAbsolute) {
        *this = nativePathToURI(getCurrentWorkDirectoryAsString()) << *this;
    }
}

CURI::CURI(const TPathImpl<CWindowsPathTraits>& path, bool makeAbsolute) {
    const String& text = path.toString();
    if (text.isEmpty())
        return;
    if (!path.isAbsolute()) {
        // A rooted path lacks its drive, which only a base can give: it stays a reference to be resolved.
        const bool isRooted = CWindowsPathTraits::getRootLength(text) > 0;
        m_scheme = isRooted ? "" : "file";
        m_path = (isRooted ? "/" : "") + joinNames<CWindowsPathTraits>(text, 0);
        if (makeAbsolute)
            *this = nativePathToURI(getCurrentWorkDirectoryAsString()) << *this;
        return;
    }
    m_scheme = "file";
    m_host = String();
    m_path = "/" + joinNames<CWindowsPathTraits>(text, 0);
    if (!CWindowsPathTraits::isSeparator(text[0]))
        return;
    const int share = m_path.Find(L'/', 1);
    const String server = m_path.Mid(1, share - 1);
    if (uripart::toLowerAscii(server) == "localhost") {
        // As a host it would be dropped by normalisation, and the share be taken for a folder.
        m_path = "/" + m_path;
    } else {
        m_host = server;
        m_path = m_path.Mid(share);
    }
}

CURI::CURI(const String& scheme, const String& path, TConstOptRef<String> host, TConstOptRef<String> userInfo,
           int port, TConstOptRef<String> query, TConstOptRef<String> fragment)
    : m_scheme(scheme), m_port(port), m_path(path) {
    const auto copy = [](TConstOptRef<String> part) { return part ? std::optional(*part) : std::nullopt; };
    if (!scheme.isEmpty() && !isScheme(scheme))
        throw CInvalidArgError("CURI constructor", "Invalid scheme", CProps().add("scheme", scheme));
    if (port < -1 || port > highestPort)
        throw CInvalidArgError("CURI constructor", "Invalid port", CProps().add("port", port));
    m_host = copy(host);
    m_userInfo = copy(userInfo);
    m_query = copy(query);
    m_fragment = copy(fragment);
    if (!m_host && (m_userInfo || m_port >= 0))
        m_host = String();
    if (m_host && !m_path.isEmpty() && m_path[0] != L'/')
        m_path = "/" + m_path;
}

bool CURI::isFile() const {
    return uripart::toLowerAscii(m_scheme) == "file";
}

String CURI::getDrive() const {
    const bool isLocalFile =
        isFile() && (!m_host || m_host->isEmpty() || uripart::toLowerAscii(*m_host) == "localhost");
    const bool hasDrive = isLocalFile && m_path[0] == L'/' &&
                          percent::isAsciiLetter(static_cast<char32_t>(m_path[1])) && m_path[2] == L':' &&
                          (m_path.getLength() == 3 || m_path[3] == L'/');
    return hasDrive ? m_path.Left(3) : String();
}

bool CURI::isEmpty() const noexcept {
    return m_scheme.isEmpty() && !m_host && m_path.isEmpty() && !m_query && !m_fragment;
}

bool CURI::isAbsolute() const noexcept {
    return !m_scheme.isEmpty() && (m_path.isEmpty() ? m_host.has_value() : m_path[0] == L'/');
}

std::optional<String> CURI::getUserName() const {
    if (!m_userInfo)
        return std::nullopt;
    const int colon = m_userInfo->Find(L':');
    return colon < 0 ? m_userInfo : m_userInfo->Left(colon);
}

std::optional<String> CURI::getAuthority() const {
    if (!m_host)
        return std::nullopt;
    return (m_userInfo ? *m_userInfo + "@" : String()) + *m_host +
           (m_port >= 0 ? ":" + toDecimal(m_port) : String());
}

String CURI::getName() const {
    const String segment = uripath::getLastSegment(m_path);
    return uripath::isDotSegment(segment) ? String() : percent::unescape(segment);
}

String CURI::getTitle() const {
    const String name = getName();
    return name.Left(name.getLength() - getExtension().getLength());
}

String CURI::getExtension() const {
    const String name = getName();
    const int dot = name.ReverseFind(L'.');
    return dot > 0 ? name.Mid(dot) : String();
}

CURI CURI::getParent() const {
    CURI parent(*this);
    parent.m_query.reset();
    parent.m_fragment.reset();
    const String segment = uripath::getLastSegment(m_path);
    if (uripath::isDotSegment(segment))
        return parent;
    const String folder = uripath::getFolder(m_path);
    // The "/" stays where it is the root or ends an empty name: without it the folder would be another.
    const bool keepsSlash = folder.getLength() < 2 || folder.EndsWith("//");
    parent.m_path = keepsSlash ? folder : folder.Left(folder.getLength() - 1);
    return parent;
}

CURI CURI::operator<<(const String& name) const {
    std::wstring segment;
    for (const wchar_t c : name.getWideString())
        appendToName(segment, c);
    const String written(std::move(segment));
    if (uripath::isDotSegment(written))
        throw CBadPathError(name, "The name of a file is expected");
    CURI file(*this);
    file.m_query.reset();
    file.m_fragment.reset();
    file.m_path = (m_path.isEmpty() && m_host ? String("/") : withSlash(m_path)) + written;
    return file;
}

CURI CURI::operator<<(const CURI& relative) const {
    CURI folder(*this);
    folder.m_query.reset();
    folder.m_fragment.reset();
    folder.m_path = withSlash(m_path);
    return folder.resolve(relative);
}

CURI CURI::resolve(const CURI& reference) const {
    CURI target(reference);
    const bool isRelativeFile =
        isFile() && reference.isFile() && !reference.m_host && reference.m_path[0] != L'/';
    if (!reference.m_scheme.isEmpty() && !isRelativeFile) {
        target.m_path = removeDots(reference.m_path, reference.getDrive());
        return target;
    }
    target.m_scheme = m_scheme;
    if (!reference.m_host) {
        target.m_userInfo = m_userInfo;
        target.m_host = m_host;
        target.m_port = m_port;
        if (reference.m_path.isEmpty()) {
            target.m_path = m_path;
            if (!reference.m_query)
                target.m_query = m_query;
            return target;
        }
        if (reference.m_path[0] != L'/')
            target.m_path = m_path.isEmpty() && m_host ? "/" + reference.m_path
                                                       : uripath::getFolder(m_path) + reference.m_path;
        else if (target.getDrive().isEmpty())
            target.m_path = getDrive() + reference.m_path;
    }
    target.m_path = removeDots(target.m_path, target.getDrive());
    return target;
}

CURI CURI::toNormalized() const {
    CURI result(*this);
    result.m_scheme = uripart::toLowerAscii(m_scheme);
    normalizePart(result.m_userInfo, uripart::isUserInfoCharacter);
    normalizePart(result.m_query, uripart::isQueryCharacter);
    normalizePart(result.m_fragment, uripart::isQueryCharacter);
    if (m_host)
        result.m_host = uripart::normalizeHost(*m_host);
    if (isFile() && (m_host ? result.m_host == String("localhost") : m_path[0] == L'/'))
        result.m_host = String();

    // In the name of a file no character has a meaning of its own, so that an escape makes no difference.
    result.m_path = uripart::normalize(m_path, isFile() ? uripart::isNameCharacter : percent::isUnreserved,
                                       uripart::isPathCharacter);
    result.m_path = removeDots(result.m_path, result.getDrive());
    if (result.m_host && result.m_path.isEmpty())
        result.m_path = "/";
    result.m_path = result.getPathGuard() + result.m_path;
    return result;
}

String CURI::getPathGuard() const {
    if (m_host)
        return String();
    if (m_path.StartsWith("//"))
        return "/.";
    const int colon = m_path.Find(L':');
    const int slash = m_path.Find(L'/');
    return m_scheme.isEmpty() && colon >= 0 && (slash < 0 || colon < slash) ? "./" : "";
}

String CURI::toString(bool forPeople) const {
    String result;
    if (!m_scheme.isEmpty())
        result += m_scheme + ":";
    if (m_host) {
        result += "//";
        if (m_userInfo && !forPeople)
            result += writePart(*m_userInfo, uripart::isUserInfoCharacter, forPeople) + "@";
        result +=
            uripart::isIPLiteral(*m_host) ? *m_host : writePart(*m_host, uripart::isHostCharacter, forPeople);
        if (m_port >= 0)
            result += ":" + toDecimal(m_port);
    }
    result += getPathGuard();
    result += writePart(m_path, uripart::isPathCharacter, forPeople);
    if (m_query)
        result += "?" + writePart(*m_query, uripart::isQueryCharacter, forPeople);
    if (m_fragment)
        result += "#" + writePart(*m_fragment, uripart::isQueryCharacter, forPeople);
    return result;
}

} // namespace lum
