#include "programguard.h"

#include <QVector>

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

namespace {

// Rights that let a holder replace what the service runs, or give himself
// those rights.
const DWORD ChangeRights = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_DELETE_CHILD | DELETE | WRITE_DAC
                           | WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;

using Sid = QByteArray;

Sid sidBytes(PSID sid)
{
    return IsValidSid(sid) ? Sid(static_cast<const char *>(sid), int(GetLengthSid(sid))) : Sid();
}

Sid sidFromText(const wchar_t *text)
{
    PSID sid = nullptr;
    if (!ConvertStringSidToSidW(text, &sid))
        return Sid();
    const Sid bytes = sidBytes(sid);
    LocalFree(sid);
    return bytes;
}

Sid callerSid()
{
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return Sid();
    QVector<quint64> buffer(256);
    DWORD size = 0;
    const bool ok = GetTokenInformation(token, TokenUser, buffer.data(), DWORD(buffer.size() * 8), &size);
    CloseHandle(token);
    return ok ? sidBytes(reinterpret_cast<TOKEN_USER *>(buffer.data())->User.Sid) : Sid();
}

// Null when the name is unknown (a bare user arrives as ".\user").
Sid accountSid(QString account)
{
    if (account.startsWith(QLatin1String(".\\")))
        account.remove(0, 2);
    QVector<quint64> sid(16);
    wchar_t domain[256];
    DWORD sidSize = DWORD(sid.size() * 8), domainSize = 256;
    SID_NAME_USE use;
    if (account.isEmpty()
        || !LookupAccountNameW(nullptr, reinterpret_cast<const wchar_t *>(account.utf16()), sid.data(), &sidSize,
                               domain, &domainSize, &use))
        return Sid();
    return sidBytes(sid.data());
}

QVector<Sid> trustedSids(const QString &account)
{
    return {sidFromText(L"S-1-5-18"), sidFromText(L"S-1-5-32-544"),
            sidFromText(L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464"), callerSid(),
            accountSid(account)};
}

// "DOMAIN\name" when the system knows it, else the SID's text.
QString sidName(PSID sid)
{
    wchar_t name[256], domain[256];
    DWORD nameSize = 256, domainSize = 256;
    SID_NAME_USE use;
    if (LookupAccountSidW(nullptr, sid, name, &nameSize, domain, &domainSize, &use)) {
        const QString user = QString::fromWCharArray(name);
        return domainSize ? QString::fromWCharArray(domain) + QLatin1Char('\\') + user : user;
    }
    wchar_t *text = nullptr;
    if (!ConvertSidToStringSidW(sid, &text))
        return QStringLiteral("an unknown account");
    const QString result = QString::fromWCharArray(text);
    LocalFree(text);
    return result;
}

// The first account the list allows to change the object, skipping entries
// that only pass on to children (they are checked where they apply).
QString changerIn(PACL dacl, const QVector<Sid> &trusted)
{
    if (!dacl)
        return QStringLiteral("Everyone, it has no access list");
    for (DWORD i = 0; i < dacl->AceCount; ++i) {
        ACE_HEADER *header = nullptr;
        if (!GetAce(dacl, i, reinterpret_cast<void **>(&header)) || header->AceType != ACCESS_ALLOWED_ACE_TYPE
            || (header->AceFlags & INHERIT_ONLY_ACE))
            continue;
        auto *ace = reinterpret_cast<ACCESS_ALLOWED_ACE *>(header);
        PSID sid = &ace->SidStart;
        if ((ace->Mask & ChangeRights) && !trusted.contains(sidBytes(sid)))
            return sidName(sid);
    }
    return QString();
}

} // namespace

QString openToOthers(const QString &path, const QString &account)
{
    PSID owner = nullptr;
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD error = GetNamedSecurityInfoW(reinterpret_cast<const wchar_t *>(path.utf16()), SE_FILE_OBJECT,
                                              OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner,
                                              nullptr, &dacl, nullptr, &descriptor);
    if (error != ERROR_SUCCESS)
        return QStringLiteral("its permissions cannot be read: %1").arg(qt_error_string(int(error)));
    const QVector<Sid> trusted = trustedSids(account);
    QString reason;
    if (!trusted.contains(sidBytes(owner)))
        reason = QStringLiteral("owned by %1").arg(sidName(owner));
    else if (const QString changer = changerIn(dacl, trusted); !changer.isEmpty())
        reason = QStringLiteral("%1 may write it").arg(changer);
    LocalFree(descriptor);
    return reason;
}
