; The installer's folders made the administrators' before anything is
; written there, and the service's account let into its log folder.
; Included by tarn.nsi, after its Fail, Log and Run macros.

; A folder that is a junction or a link (a reparse point) would take the
; installer's and the service's writes wherever it points: refused before
; anything is written, the log included.
Function RefuseLink ; $R6: the folder
    Push "$R6"
    Call IsLink
    Pop $0
    ${If} $0 == 1
        !insertmacro Fail ${EXIT_UNSAFE_FOLDER} "$R6 is a junction or a link, which Tarn does not write through; remove it and run the installer again."
    ${EndIf}
FunctionEnd

; The owner of the path in $R6, as a SID, in $R5 ("" when unreadable).
Function OwnerOf
    StrCpy $R5 ""
    System::Call 'advapi32::GetNamedSecurityInfoW(w R6, i 1, i 1, *p .r1, p 0, p 0, p 0, *p .r2) i .r0'
    ${If} $0 == 0
        System::Call 'advapi32::ConvertSidToStringSidW(p r1, *p .r3) i .r0'
        ${If} $0 != 0
            System::Call '*$3(&w256 .R5)'
            System::Call 'kernel32::LocalFree(p r3)'
        ${EndIf}
        System::Call 'kernel32::LocalFree(p r2)'
    ${EndIf}
FunctionEnd

; $R4: 1 when the folder in $R6 holds anything.
Function HasChildren
    StrCpy $R4 0
    FindFirst $0 $1 "$R6\*"
    ${DoWhile} $1 != ""
        ${If} $1 != "."
        ${AndIf} $1 != ".."
            StrCpy $R4 1
            ${Break}
        ${EndIf}
        FindNext $0 $1
    ${Loop}
    FindClose $0
FunctionEnd

; Refuses what a user may have left below a folder being taken over: a
; junction or link would lead the installer's writes and the service's
; elsewhere, and a hard link shares its file with another folder. Locate's
; callback: $R9 the path, $R6 "" for a folder.
Function RefuseLinkBelow
    System::Call 'kernel32::CreateFileW(w R9, i 0x80, i 7, p 0, i 3, i 0x02200000, p 0) p .r0'
    ${If} $0 != -1
        System::Call '*(&i52) p .r1'
        System::Call 'kernel32::GetFileInformationByHandle(p r0, p r1) i .r2'
        System::Call '*$1(i .r3, i, i, i, i, i, i, i, i, i, i .r4)'
        System::Free $1
        System::Call 'kernel32::CloseHandle(p r0)'
        IntOp $3 $3 & 0x400
        ${If} $2 == 0
            StrCpy $5 ""
        ${ElseIf} $3 != 0
            StrCpy $5 "a junction or a link"
        ${ElseIf} $R6 != ""
        ${AndIf} $4 > 1
            StrCpy $5 "a hard link"
        ${Else}
            StrCpy $5 ""
        ${EndIf}
        ${If} $5 != ""
            !insertmacro Fail ${EXIT_UNSAFE_FOLDER} "$LockedFolder holds $5, $R9, which Tarn does not follow; remove it and run the installer again."
        ${EndIf}
    ${EndIf}
    Push ""
FunctionEnd

; Makes the folder in $R6 the administrators', as Program Files is: they own
; it and everything in it (links themselves, never what they point to),
; SYSTEM and administrators have full control, users read and run, nothing
; comes from the folder above, and every child inherits just that. Each step
; leaves users less than the one before: the folder is closed (no entry of
; a user's own kept, nothing inheritable) before what is in it is taken and
; closed, then searched for links, and only then opened to what it should
; allow. Any command that fails ends the installation; they are logged by
; LogLocked, once the log may be written.
!define LOCK_FOLDER_OWNER 'icacls "$R6" /setowner *S-1-5-32-544'
!define LOCK_FOLDER_RESET 'icacls "$R6" /reset'
!define LOCK_FOLDER_CLOSE 'icacls "$R6" /inheritance:r /grant:r *S-1-5-18:F *S-1-5-32-544:F *S-1-5-32-545:RX'
!define LOCK_OWNER 'icacls "$R6" /setowner *S-1-5-32-544 /T /C /L'
!define LOCK_CHILDREN 'icacls "$R6\*" /reset /T /C /L'
!define LOCK_OPEN 'icacls "$R6" /grant:r *S-1-5-18:(OI)(CI)F *S-1-5-32-544:(OI)(CI)F *S-1-5-32-545:(OI)(CI)RX'
!macro LockStep COMMAND
    nsExec::ExecToStack `${COMMAND}`
    Pop $0
    Pop $1
    ${If} $0 != 0
        !insertmacro Fail ${EXIT_STEP_FAILED} "$R6 could not be made the administrators' (icacls exit $0): $1"
    ${EndIf}
!macroend
Function LockFolder
    CreateDirectory "$R6"
    ${IfNot} ${FileExists} "$R6\*"
        !insertmacro Fail ${EXIT_STEP_FAILED} "$R6 is not a folder and cannot be made one."
    ${EndIf}
    Call RefuseLink
    !insertmacro LockStep '${LOCK_FOLDER_OWNER}'
    !insertmacro LockStep '${LOCK_FOLDER_RESET}'
    !insertmacro LockStep '${LOCK_FOLDER_CLOSE}'
    !insertmacro LockStep '${LOCK_OWNER}'
    Call HasChildren
    ${If} $R4 == 1
        !insertmacro LockStep '${LOCK_CHILDREN}'
        StrCpy $LockedFolder $R6
        ${Locate} "$R6" "/L=FD /M=*" RefuseLinkBelow
    ${EndIf}
    !insertmacro LockStep '${LOCK_OPEN}'
FunctionEnd

!macro LogLockStep COMMAND
    !insertmacro Log `> ${COMMAND}`
    !insertmacro Log "exit 0"
!macroend
Function LogLocked
    !insertmacro LogLockStep '${LOCK_FOLDER_OWNER}'
    !insertmacro LogLockStep '${LOCK_FOLDER_RESET}'
    !insertmacro LogLockStep '${LOCK_FOLDER_CLOSE}'
    !insertmacro LogLockStep '${LOCK_OWNER}'
    ${If} $R4 == 1
        !insertmacro LogLockStep '${LOCK_CHILDREN}'
    ${EndIf}
    !insertmacro LogLockStep '${LOCK_OPEN}'
FunctionEnd

; The service's log folder, before the install log is written there. A
; folder that was there before (a user may have made it, since users may
; create folders in ProgramData) is taken over; a link is refused.
Function LockDataFolder
    StrCpy $R6 "${DATA}"
    StrCpy $R5 ""
    ${If} ${FileExists} "$R6\*"
        Call RefuseLink
        Call OwnerOf
    ${EndIf}
    Call LockFolder
    StrCpy $LogReady 1
    ${If} $R5 != ""
    ${AndIf} $R5 != "S-1-5-32-544"
    ${AndIf} $R5 != "S-1-5-18"
        !insertmacro Log "${DATA} was there, owned by $R5: taken over"
    ${EndIf}
    Call LogLocked
FunctionEnd

; After -i: the service's account may write its logs; users still only read.
; Modify on what is in the folder, but on the folder itself only to list it
; and add to it: with DELETE there the account could rename the folder and
; leave a junction in its place, for the installer and the uninstaller,
; which run as administrators, to write through.
Function GrantDataToService
!if "${SERVICE_ACCOUNT}" != "LocalSystem"
    !insertmacro Run 'icacls "${DATA}" /grant "${SERVICE_ACCOUNT}:(OI)(CI)(IO)M" "${SERVICE_ACCOUNT}:(RX,WD,AD)"'
    ${If} $0 != 0
        !insertmacro Fail ${EXIT_STEP_FAILED} "${DATA} could not be opened to ${SERVICE_ACCOUNT}; see ${LOG}."
    ${EndIf}
!endif
FunctionEnd
