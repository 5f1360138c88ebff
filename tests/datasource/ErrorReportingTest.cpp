#include <gtest/gtest.h>

#include "platform/WideString.h"
#include "provider/ErrorReporting.h"

using corvane::DescribeFailure;
using corvane::ToUtf8;

namespace {
std::string Describe(REFIID iid, HRESULT hr) { return ToUtf8(DescribeFailure(iid, hr)); }
}  // namespace

TEST(ErrorDescriptions, JoinInterfaceAndResultTexts) {
  EXPECT_EQ(Describe(IID_IDBInitialize, E_FAIL),
            "Failed to initialize/unitialize a data source (IID_IDBInitialize). Details: Returned E_FAIL.");
  EXPECT_EQ(Describe(IID_ICommandText, DB_E_ERRORSINCOMMAND),
            "Failed to run a command (IID_ICommandText). Details: No more details (HRESULT = 80040E14).");
  EXPECT_EQ(Describe(IID_IDBProperties, static_cast<HRESULT>(0xC0041009)),
            "Failed to get/set the properties (IID_IDBProperties). Details: The requested aggregate is not "
            "available from the provided item (C0041009).");
  EXPECT_EQ(Describe(IID_IOpenRowset, static_cast<HRESULT>(0xC004100B)),
            "Failed to open a rowset (IID_IOpenRowset). Details: Unable to insert - data already present (C004100B).");
  EXPECT_EQ(Describe(IID_ICommand, CORVANE_E_TABLE_NOT_FOUND),
            "Failed to execute a command (IID_ICommand). Details: Required table doesn't exist.");
  EXPECT_EQ(Describe(IID_ICommandPrepare, CORVANE_E_MISSING_PARAMETER),
            "Failed to prepare a command (IID_ICommandPrepare). Details: Missing required parameter.");
  EXPECT_EQ(Describe(IID_IDBSchemaRowset, CORVANE_E_TAG_PATH_NOT_FOUND),
            "Failed to get a rowset or schema (IID_IDBSchemaRowset). Details: Required tag path doesn't exist.");
  EXPECT_EQ(Describe(IID_IDBCreateCommand, CORVANE_E_PROCEDURE_NOT_FOUND),
            "Failed to create a command (IID_IDBCreateCommand). Details: Required stored procedure doesn't exist.");
  EXPECT_EQ(Describe(IID_IDBCreateSession, DISP_E_TYPEMISMATCH),
            "Failed to create a session (IID_IDBCreateSession). Details: Type mismatch.");
  EXPECT_EQ(Describe(IID_IDBInfo, E_OUTOFMEMORY),
            "Failed to get keywords or literals (IID_IDBInfo). Details: No more details (HRESULT = 8007000E).");
  // Provider codes without a text of their own fall through to the general one.
  EXPECT_EQ(Describe(IID_ICommand, CORVANE_E_NOT_ONE_FROM_ITEM),
            "Failed to execute a command (IID_ICommand). Details: No more details (HRESULT = 8004C006).");
}

TEST(ErrorDescriptions, UnknownInterfaceShowsItsIdentifier) {
  // IRowset has no text of its own: the first four groups of its identifier, in
  // upper-case hexadecimal without leading zeros.
  EXPECT_EQ(Describe(IID_IRowset, E_FAIL), "Failed (interface C733A7C-2A1C-11CE-ADE5). Details: Returned E_FAIL.");
  EXPECT_EQ(ToUtf8(DescribeFailure(IID_ICommandText, OLESTR("Unable to set command text."))),
            "Failed to run a command (IID_ICommandText). Details: Unable to set command text.");
  EXPECT_EQ(ToUtf8(DescribeFailure(IID_ICommand, static_cast<const OLECHAR*>(nullptr))),
            "Failed to execute a command (IID_ICommand). Details: ");
}
