<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** Registration of agents, and what agents ask for. */
final class AgentActions
{
    public const TABLE = [
        'register' => [self::class, 'register'],
        'getRoutingTables' => [self::class, 'getRoutingTables'],
    ];

    /** Fields of a registration: name => column that keeps it, kind, and whether it may be absent. */
    private const REGISTRATION = [
        'isServerAgent' => ['is_server_agent', FieldKind::Flag, false],
        'macAddress' => ['mac_address', FieldKind::MacAddress, true],
        'agentVersion' => ['agent_version', FieldKind::Line, true],
        // "version" repeats "agentVersion", and is there also when that is not.
        'version' => ['agent_version', FieldKind::LineOrEmpty, false],
        'osvariantid' => ['os_variant_id', FieldKind::Number, false],
        'osType' => ['os_type', FieldKind::Number, false],
        'osextensions' => ['os_extensions', FieldKind::LineOrEmpty, false],
        'hostName' => ['host_name', FieldKind::HostName, false],
        'type' => ['agent_type', FieldKind::AgentType, false],
    ];

    public function __construct(private readonly Store $store)
    {
    }

    /** Registers a host and gives it an id and a system account with a fresh password. */
    public function register(Request $request, Caller $caller): \Closure
    {
        $caller->requireAdministrator('register agents');
        $id = $request->fields->number('agentid');
        $properties = self::properties($request->fields);
        $password = Accounts::freshPassword();
        $hash = Accounts::hashFresh($password);
        return function () use ($id, $properties, $password, $hash): string {
            $id = $this->enrol($id, $properties, $hash);
            return Answer::data(
                ['agentid' => 'I', 'login' => 'S', 'password' => 'S'],
                [[$id, Accounts::systemLogin($id), $password]]
            );
        };
    }

    /** The recommended and the current routing table of a pool. */
    public function getRoutingTables(Request $request, Caller $caller): \Closure
    {
        $pool = $request->fields->number('storagepoolId');
        $agent = $request->fields->has('id') ? $request->fields->number('id') : null;
        if ($agent !== null) {
            $caller->requireAgent($agent);
        }
        return fn (): string => $this->tables($pool, $agent);
    }

    private function tables(int $pool, ?int $agent): string
    {
        if ($agent !== null) {
            $this->requireAgent($agent);
        }
        $tables = $this->store->pool($pool)
            ?? throw new Refusal(Fault::NotFound, "There is no storage pool with the id $pool.");
        return Answer::data(
            ['cr_recommendedrt' => 'S', 'cr_currentrt' => 'S'],
            [[$tables['recommended_rt'], $tables['current_rt']]]
        );
    }

    /** @return array<string, string> column => value */
    private static function properties(Fields $fields): array
    {
        $properties = [];
        foreach (self::REGISTRATION as $name => [$column, $kind, $mayBeAbsent]) {
            $properties[$column] = $mayBeAbsent ? $fields->optional($name, $kind) : $fields->text($name, $kind);
        }
        return $properties;
    }

    /** Stores the agent under the id it has, or a new one: a host that comes again stays one agent. */
    private function enrol(int $id, array $properties, string $hash): int
    {
        $host = $properties['host_name'];
        $known = $this->store->agentOfHost($host);
        if ($id > 0) {
            $this->requireAgent($id);
            if ($known !== null && $known['id'] !== $id) {
                throw new Refusal(Fault::Conflict, "The host \"$host\" is registered as another agent.");
            }
        }
        $id = $this->store->saveAgent($id > 0 ? $id : $known['id'] ?? null, $properties);
        $this->store->saveAccount(Accounts::systemLogin($id), $hash, $id);
        return $id;
    }

    private function requireAgent(int $id): void
    {
        $this->store->agent($id) ?? throw new Refusal(Fault::NotFound, "There is no agent with the id $id.");
    }
}
