// The rowset properties a consumer may ask for when it opens a rowset: through a
// command (ICommandProperties, held until Execute) or through IOpenRowset and the
// schema rowsets (table rowset list). Kept in step with the rowset core's own answers.
#pragma once
#include "provider/PropertyEngine.h"

namespace corvane {

const PropertySetDefinition* CommandRowsetPropertySets(size_t* count);
const PropertySetDefinition* TableRowsetPropertySets(size_t* count);

}  // namespace corvane
