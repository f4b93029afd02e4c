-- wrk script of the soak test (bench/soak): every connection walks the agent's
-- endpoints in turn and waits 50 ms between requests (20 connections: about 400
-- requests a second).
local paths = {
  "/api/v1/tables/Load_Average",
  "/api/v1/tables/Demo_Items",
  "/api/v1/tables/Demo_Counter",
  "/api/v1/tables/Directory_Usage?node=RV:logs:DIR",
  "/api/v1/tables/Directory_Usage?type=HISTORICAL_SITUATION",
  "/api/v1/tables/Disk_Usage",
  "/api/v1/tables/Network_Interfaces",
  "/api/v1/tables/Thread_Pool_Status",
  "/api/v1/tables/Performance_Object_Status",
  "/api/v1/tables/Configured_Directories",
  "/api/v1/tables",
  "/api/v1/nodes",
  "/api/v1/events",
  "/api/v1/audit",
  "/metrics",
  "/healthz",
}
local next_path = 0

setup = function(thread)
  thread:set("offset", next_path)
  next_path = next_path + 7
end

init = function(args)
  counter = offset or 0
end

request = function()
  counter = counter + 1
  return wrk.format("GET", paths[counter % #paths + 1])
end

delay = function()
  return 50
end
