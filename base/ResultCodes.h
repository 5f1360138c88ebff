// The provider's result codes and the texts that describe a failure to a consumer: a
// text for the interface that failed and one for the HRESULT, joined as "<interface>
// Details: <reason>". Every layer may need them, so they sit below all of them.
#pragma once
#include "platform/Platform.h"
#include "platform/WideString.h"

// The provider's own failure codes (interface facility).
#define CORVANE_E_TABLE_NOT_FOUND ((HRESULT)0x8004C001L)
#define CORVANE_E_UPDATE_NOT_ALLOWED ((HRESULT)0x8004C002L)
#define CORVANE_E_INSERT_DELETE_NOT_ALLOWED ((HRESULT)0x8004C003L)
#define CORVANE_E_MISSING_PARAMETER ((HRESULT)0x8004C004L)
#define CORVANE_E_TAG_PATH_NOT_FOUND ((HRESULT)0x8004C005L)
#define CORVANE_E_NOT_ONE_FROM_ITEM ((HRESULT)0x8004C006L)
#define CORVANE_E_PROCEDURE_NOT_FOUND ((HRESULT)0x8004C007L)
#define CORVANE_E_NOT_ONE_PROCEDURE ((HRESULT)0x8004C008L)

namespace corvane {

// "Failed to create a session (IID_IDBCreateSession)." and so on; for an interface
// without a text of its own, "Failed (interface %X-%X-%X-%X)." filled with the first
// four groups of the identifier's text form (the fourth being its bytes 8 and 9).
WString ErrorInterfaceText(REFIID iid);
// "Returned E_FAIL.", "No more details (HRESULT = 80040E14)." and so on.
WString ErrorResultText(HRESULT hr);
// The two texts joined: "<interface text> Details: <HRESULT text>".
WString DescribeFailure(REFIID iid, HRESULT hr);
// The interface text joined the same way with a message of the caller's own.
WString DescribeFailure(REFIID iid, const OLECHAR* message);

}  // namespace corvane
