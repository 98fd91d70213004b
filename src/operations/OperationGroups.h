#pragma once

namespace kestrin::operations {

class OperationTable;

// One function per group of remote operations, each defined in the source of that name.
void addControllerOperations(OperationTable& table);
void addErrorChannelOperations(OperationTable& table);
void addCredentialOperations(OperationTable& table);
void addTaskOperations(OperationTable& table);
void addConfigurationOperations(OperationTable& table);

} // namespace kestrin::operations
