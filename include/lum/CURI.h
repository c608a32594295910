#pragma once

#include "lum/TConstOptRef.h"
#include "lum/TPathImpl.h"

#include <optional>

namespace lum {

/// Where a file is, as a URI or a relative reference (RFC 3986). Blanks and characters outside ASCII
/// may stand unescaped, as people write them. A value type.
///
/// The path is kept with its escapes, so that a name that holds "/", "?", "#" or "%" stays one name.
class TESSEL_EXPORT CURI {
public:
    /// The empty reference.
    CURI() = default;
    /// Parses a URI or a relative reference. Any text can be parsed; a "%" that begins no escape
    /// stands for itself.
    explicit CURI(const String& text);
    /// A "file" URI from a path. A relative path is resolved against the current folder when
    /// `makeAbsolute` is set, and else gives a "file" URI with a relative path, which is not absolute.
    /// A UNC path's server becomes the host. A Windows path that begins with a separator but has no drive
    /// gives a reference without a scheme, which takes the drive from what it is resolved against. A row
    /// of separators counts as one. The empty path gives the empty reference.
    CURI(const TPathImpl<CWindowsPathTraits>& path, bool makeAbsolute);
    /// The same from a Unix path.
    CURI(const TPathImpl<CUnixPathTraits>& path, bool makeAbsolute);
    /// From parts that are escaped as far as they need it. `port` -1 is none. User information or a port
    /// without a host get an empty host; a host puts "/" before a relative path.
    /// Throws: CInvalidArgError when `scheme` is none (RFC 3986 section 3.1) or `port` is above 65535.
    CURI(const String& scheme, const String& path, TConstOptRef<String> host = {},
         TConstOptRef<String> userInfo = {}, int port = -1, TConstOptRef<String> query = {},
         TConstOptRef<String> fragment = {});

    /// True for the empty reference.
    bool isEmpty() const noexcept;
    /// True with a scheme and a path that begins with "/" (or, without a path, a host).
    bool isAbsolute() const noexcept;

    /// Without the ":", as it was written; empty for a relative reference.
    const String& getScheme() const noexcept { return m_scheme; }
    /// The path with its escapes.
    const String& getPath() const noexcept { return m_path; }
    /// As it was written; absent without "//".
    TConstOptRef<String> getHost() const noexcept { return ref(m_host); }
    /// What stands before the "@", with its escapes; absent where there is none.
    TConstOptRef<String> getUserInfo() const noexcept { return ref(m_userInfo); }
    /// User information up to its first ":".
    std::optional<String> getUserName() const;
    /// User information, host and port as they stand between "//" and the path.
    std::optional<String> getAuthority() const;
    /// -1 where there is none.
    int getPort() const noexcept { return m_port; }
    /// What stands behind the "?", with its escapes; absent where there is none.
    TConstOptRef<String> getQuery() const noexcept { return ref(m_query); }
    /// What stands behind the "#", with its escapes; absent where there is none.
    TConstOptRef<String> getFragment() const noexcept { return ref(m_fragment); }

    /// The last name of the path, escapes of UTF-8 undone; empty when the path ends with "/", "." or "..".
    String getName() const;
    /// The name without its extension.
    String getTitle() const;
    /// The name from its last "." on, that "." included; empty when there is none but at the start.
    String getExtension() const;
    /// The folder that holds this file: the path without its last name and the "/" before it, without
    /// query and fragment. `uri.getParent() << uri.getName()` is the same file. A path that ends with "/",
    /// "." or ".." has no last name and gives that folder itself; the root is its own parent.
    CURI getParent() const;

    /// The file called `name` in the folder that this URI is. `name` is taken as it is: what would
    /// mean something else in a path is escaped, "/" included. The empty name gives the folder with "/".
    /// Throws: CBadPathError for "." and "..", which no file is called.
    CURI operator<<(const String& name) const;
    /// `relative` seen from the folder that this URI is: resolve() with a "/" behind the path.
    CURI operator<<(const CURI& relative) const;
    /// Reference resolution as in RFC 3986 section 5.2, with this as the base. With "file" URIs, a drive
    /// ("/C:") at the start of the base's path is kept by references that bring none, and a "file" URI
    /// with a relative path is a relative reference. With a relative base the result is relative.
    CURI resolve(const CURI& reference) const;

    /// The normal form (RFC 3986 section 6.2.2): scheme and host in lower case, no "." and ".."
    /// segments, escapes of unreserved characters undone, other escapes in upper case, everything
    /// escaped that must be, no "localhost" as the host of a file, in whose path no character is escaped
    /// that need not be. Equal files have equal normal forms as far as their names tell. The normal form
    /// of a relative path keeps the ".." that lead out of its folder.
    CURI toNormalized() const;

    /// With `forPeople`, escapes of printable characters are undone and user information is left out;
    /// messages and parameters use this form. Without it, the strict form: ASCII, all escapes in place,
    /// which parsed again is the same location. Both begin with "./" where a ":" in a relative path would
    /// be read as the end of a scheme.
    String toString(bool forPeople) const;

    /// Equal when all parts are, letter by letter; compare normal forms to compare files.
    friend bool operator==(const CURI&, const CURI&) = default;

private:
    bool isFile() const;
    /// "/C:" where a local file's path begins with that, as Windows paths do; else empty.
    String getDrive() const;
    /// What toString must put before the path for it to be read as the same path: "./" where a ":" would
    /// end a scheme (RFC 3986 section 4.2), "/." where "//" would begin an authority (section 3.3).
    String getPathGuard() const;

    static TConstOptRef<String> ref(const std::optional<String>& part) noexcept {
        return part ? TConstOptRef<String>(*part) : TConstOptRef<String>();
    }

    String m_scheme;
    std::optional<String> m_userInfo;
    std::optional<String> m_host;
    int m_port = -1;
    String m_path;
    std::optional<String> m_query;
    std::optional<String> m_fragment;
};

/// The current folder as a native path.
/// Throws: CFileSystemError when it cannot be told.
TESSEL_EXPORT String getCurrentWorkDirectoryAsString();

/// The URI of a file named by a path of this system, relative paths from the current folder.
/// Throws: CBadPathError.
TESSEL_EXPORT CURI nativePathToURI(const String& path);

/// The native path of a "file" URI or of a relative reference (which stays relative).
/// Throws: CFileSystemError (Problem_NotSupported) for another scheme, for a query, fragment, user or
/// port, and on systems without UNC paths for a host; parameter "uri". CBadPathError for a name that this
/// system cannot have, such as one with an escaped separator.
TESSEL_EXPORT String uriToNativePath(const CURI& uri);

} // namespace lum
