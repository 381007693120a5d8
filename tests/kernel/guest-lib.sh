# Sourced by the guest scenarios inside the lab VM. They run from the shared folder,
# which holds the installed tool in agent/; every step's output goes to
# out/NAME.{out,err,rc} for the host side to judge.
cd /host || exit 1
mkdir -p out
step() {
    local name=$1; shift
    "$@" >"out/$name.out" 2>"out/$name.err"
    echo $? >"out/$name.rc"
}
# The agent's installation place, so the tool finds its catalogue and activity log.
mkdir -p /opt/ZOR/QLX/agent && mount --bind /host/agent /opt/ZOR/QLX/agent
T=/opt/ZOR/QLX/agent/bin/PathPlannerTopology
