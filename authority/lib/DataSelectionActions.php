<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** Data selections: named sets of data that an agent protects. */
final class DataSelectionActions
{
    public const TABLE = ['createDS' => [self::class, 'createDS']];

    public function __construct(private readonly Store $store)
    {
    }

    /** Stores a data selection; its type and its rules may be empty. */
    public function createDS(Request $request, Caller $caller): \Closure
    {
        $agent = $request->fields->number('agentid');
        $name = $request->fields->text('name', FieldKind::Line);
        $type = $request->fields->text('dstypeid', FieldKind::NumberOrEmpty);
        $rules = $request->fields->text('dataselection', FieldKind::Text);
        $caller->requireAgent($agent);
        return fn (): string => $this->add($agent, $name, $type, $rules);
    }

    private function add(int $agent, string $name, string $type, string $rules): string
    {
        $this->store->agent($agent) ?? throw new Refusal(Fault::NotFound, "There is no agent with the id $agent.");
        $id = $this->store->addDataSelection($agent, $name, $type, $rules)
            ?? throw new Refusal(Fault::Conflict, "The agent $agent has a data selection of this name already.");
        return Answer::data(['dataselectionid' => 'I'], [[$id]]);
    }
}
