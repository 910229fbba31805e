// The device hardware-abstraction library: the sensor nodes of the accelerator, at which the daemon
// reports faults, and its share-pool memory groups. Every call returns 0 on success. All calls may
// be made from any thread.
#pragma once

#include <cstdint>

struct HalSensorNodeConfig {
    char name[20];  // filled with NULs after the name
    uint16_t nodeType;
    uint8_t sensorType;
};

// Stores the number of devices; their numbers start at 0.
uint32_t drvGetDevNum(uint32_t* count);

// Registers a sensor node at a device and stores the node's handle.
uint32_t halSensorNodeRegister(uint32_t device, const HalSensorNodeConfig* config,
                               uint64_t* handle);
// Reports the state of a node. `fault`: 1 for a fault of the node's own kind, else 0. `event`: the
// event code, 0 for none.
uint32_t halSensorNodeUpdateState(uint32_t device, uint64_t handle, int32_t fault, int32_t event);
uint32_t halSensorNodeUnregister(uint32_t device, uint64_t handle);

// Creates a share-pool group of `size` bytes under `name`.
uint32_t halGrpCreate(const char* name, uint64_t size);
// Adds a process to a group; `access` is "read" or "read-write".
uint32_t halGrpAddProc(const char* name, int32_t pid, const char* access);
